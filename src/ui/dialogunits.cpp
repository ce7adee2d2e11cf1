#include "ui/dialogunits.h"

#include <QFontMetrics>

namespace {

constexpr double kSmallestPoints = 6;
constexpr double kStep = 0.5;
constexpr const char* kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// The average width over the 52 letters, rounded.
int averageWidth(const QFontMetrics& metrics) {
    return (metrics.horizontalAdvance(QLatin1String(kLetters)) / 26 + 1) / 2;
}

int scaled(int units, int base, int divisor) {
    return (units * base + divisor / 2) / divisor;
}

}  // namespace

DialogUnits::DialogUnits(const QFont& font)
    : baseX_(averageWidth(QFontMetrics(font))), baseY_(QFontMetrics(font).height()) {}

int DialogUnits::x(int units) const {
    return scaled(units, baseX_, 4);
}

int DialogUnits::y(int units) const {
    return scaled(units, baseY_, 8);
}

QSize DialogUnits::toPixels(QSize units) const {
    return {x(units.width()), y(units.height())};
}

QRect DialogUnits::toPixels(const QRect& units) const {
    return {x(units.x()), y(units.y()), x(units.width()), y(units.height())};
}

double DialogUnits::fittingPoints(QFont font, double points, QSize units, QSize room) {
    const auto fits = [&] {
        font.setPointSizeF(points);
        const QSize size = DialogUnits(font).toPixels(units);
        return size.width() <= room.width() && size.height() <= room.height();
    };
    while (points > kSmallestPoints && !fits())
        points -= kStep;
    return points;
}
