#include "ui/dialogunits.h"

#include <gtest/gtest.h>

#include <QFontMetrics>
#include <QGuiApplication>

namespace {

QFont fontOf(int points) {
    QFont font = QGuiApplication::font();
    font.setPointSize(points);
    return font;
}

}  // namespace

TEST(DialogUnitsTest, FourByEightUnitsAreALetter) {
    for (const int points : {7, 8, 9, 11, 12, 16}) {
        const QFontMetrics metrics(fontOf(points));
        const DialogUnits units(fontOf(points));
        const QSize letter = units.toPixels(QSize(4, 8));
        EXPECT_EQ(letter.height(), metrics.height());
        EXPECT_GT(letter.width(), metrics.horizontalAdvance('i'));
        EXPECT_LT(letter.width(), metrics.horizontalAdvance('M'));

        // No error adds up over the width of a page, and halves round up.
        EXPECT_EQ(units.toPixels(QSize(4000, 8000)), letter * 1000);
        EXPECT_EQ(units.toPixels(QSize(2, 4)),
                  QSize((letter.width() + 1) / 2, (letter.height() + 1) / 2));
        EXPECT_EQ(units.toPixels(QRect(4, 8, 12, 16)),
                  QRect(letter.width(), letter.height(), 3 * letter.width(), 2 * letter.height()));
    }
}
