// Dialog units, in which the templates of pages and dialogs give their rectangles: a quarter of the
// average width of a font's letters, and an eighth of its height. So a layout grows with its texts,
// whatever font and resolution the desktop has.
#pragma once

#include <QFont>
#include <QRect>
#include <QSize>

class DialogUnits {
  public:
    explicit DialogUnits(const QFont& font);

    // From dialog units to pixels.
    QSize toPixels(QSize units) const;
    QRect toPixels(const QRect& units) const;

    // The largest point size, in halves and not above `points`, at which `units` take no more than
    // `room`, in pixels; no smaller than can be read.
    static double fittingPoints(QFont font, double points, QSize units, QSize room);

  private:
    int x(int units) const;
    int y(int units) const;

    int baseX_;  // pixels of 4 units across
    int baseY_;  // pixels of 8 units down
};
