// Builds the controls of a page or dialog from its template: a font, a size, and rectangles in
// dialog units. The controls are made in the order in which the Tab key visits them.
#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRect>
#include <QSize>
#include <QString>
#include <QWidget>

#include "ui/dialogunits.h"
#include "ui/pictogrambutton.h"

class DialogTemplate {
  public:
    // Gives `dialog` the template's font and its fixed size in dialog units.
    DialogTemplate(QWidget* dialog, double points, QSize size);

    QRect toPixels(const QRect& units) const { return units_.toPixels(units); }

    // The dialog owns what these make. A label names the edit that it is made `buddy` of.
    QLabel* label(const QRect& rectangle, const QString& text, QLineEdit* buddy = nullptr) const;
    // `name` is what assistive tools tell.
    QLineEdit* edit(const QRect& rectangle, const QString& name) const;
    QLineEdit* readOnlyEdit(const QRect& rectangle, const QString& name) const;
    QPushButton* button(const QRect& rectangle, const QString& text) const;
    QPushButton* button(const QRect& rectangle, const QString& text,
                        const Pictogram& pictogram) const;

  private:
    QPushButton* placed(QPushButton* button, const QRect& rectangle) const;

    QWidget* dialog_;
    DialogUnits units_;
};
