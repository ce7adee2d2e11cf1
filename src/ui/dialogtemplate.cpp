#include "ui/dialogtemplate.h"

namespace {

QFont fontOf(QWidget* dialog, double points) {
    QFont font = dialog->font();
    font.setPointSizeF(points);
    dialog->setFont(font);
    return font;
}

}  // namespace

DialogTemplate::DialogTemplate(QWidget* dialog, double points, QSize size)
    : dialog_(dialog), units_(fontOf(dialog, points)) {
    dialog->setFixedSize(units_.toPixels(size));
}

QLabel* DialogTemplate::label(const QRect& rectangle, const QString& text, QLineEdit* buddy) const {
    auto* const label = new QLabel(text, dialog_);
    label->setTextFormat(Qt::PlainText);
    label->setGeometry(toPixels(rectangle));
    label->setBuddy(buddy);
    return label;
}

QLineEdit* DialogTemplate::edit(const QRect& rectangle, const QString& name) const {
    auto* const edit = new QLineEdit(dialog_);
    edit->setGeometry(toPixels(rectangle));
    edit->setAccessibleName(name);
    return edit;
}

QLineEdit* DialogTemplate::readOnlyEdit(const QRect& rectangle, const QString& name) const {
    QLineEdit* const readOnly = edit(rectangle, name);
    readOnly->setReadOnly(true);
    return readOnly;
}

QPushButton* DialogTemplate::button(const QRect& rectangle, const QString& text) const {
    return placed(new QPushButton(text, dialog_), rectangle);
}

QPushButton* DialogTemplate::button(const QRect& rectangle, const QString& text,
                                    const Pictogram& pictogram) const {
    return placed(new PictogramButton(pictogram, text, dialog_), rectangle);
}

QPushButton* DialogTemplate::placed(QPushButton* button, const QRect& rectangle) const {
    button->setGeometry(toPixels(rectangle));
    // A scanner ends what it types with Enter; that must not press a button somewhere else.
    button->setAutoDefault(false);
    return button;
}
