#include "ui/rowtext.h"

#include <QFontInfo>
#include <QFontMetrics>
#include <QGlyphRun>
#include <QImage>
#include <QPainter>
#include <QRawFont>
#include <QTextLayout>
#include <algorithm>

namespace {

constexpr int kSmallestPixels = 6;

const QString kChinese = QStringLiteral("中");
// As high and as deep as letters are.
const QString kSample = QStringLiteral("中国警请Åg_yj(Q)");

// Where the font has no Chinese, the face that stands in for it takes over the whole line: else its
// letters would stand on a line whose height is another font's.
QFont withChineseFace(QFont font) {
    QTextLayout layout(kChinese, font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    const QList<QGlyphRun> runs = layout.glyphRuns();
    // On a desktop with no font at all the toolkit draws boxes, which are of no size and no family.
    if (!runs.isEmpty() && runs.front().rawFont().pixelSize() > 0)
        font.setFamilies({font.family(), runs.front().rawFont().familyName()});
    return font;
}

// What the letters take, in pixels from the base line up and down. It is looked up in a picture,
// since a font's own measures miss what hinting and smoothing add.
struct Ink {
    explicit Ink(const QFont& font) {
        const QFontMetrics metrics(font);
        QImage picture(metrics.horizontalAdvance(kSample), 4 * metrics.height(),
                       QImage::Format_Grayscale8);
        picture.fill(Qt::white);
        const int baseLine = picture.height() / 2;
        QPainter painter(&picture);
        painter.setFont(font);
        painter.drawText(0, baseLine, kSample);
        painter.end();
        const auto isBlank = [&](int row) {
            const uchar* const pixels = picture.constScanLine(row);
            return std::all_of(pixels, pixels + picture.width(),
                               [](uchar grey) { return grey == 0xFF; });
        };
        while (above < baseLine && !isBlank(baseLine - above - 1))
            ++above;
        while (baseLine + below < picture.height() && !isBlank(baseLine + below))
            ++below;
    }
    int height() const { return above + below; }

    int above = 0;
    int below = 0;
};

}  // namespace

RowText::RowText(const QFont& font, int height) : font_(withChineseFace(font)), height_(height) {
    Ink ink(font_);
    for (int size = QFontInfo(font_).pixelSize(); size >= kSmallestPixels && ink.height() > height;
         --size) {
        font_.setPixelSize(size);
        ink = Ink(font_);
    }
    baseLine_ = (height - ink.height()) / 2 + ink.above;
}

QMargins RowText::editMargins() const {
    const QFontMetrics metrics(font_);
    return {0, baseLine_ - metrics.ascent(), 0, height_ - baseLine_ - metrics.descent()};
}
