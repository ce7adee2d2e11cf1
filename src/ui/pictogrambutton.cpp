#include "ui/pictogrambutton.h"

#include <QStyleOptionButton>
#include <QStylePainter>
#include <algorithm>

namespace {

constexpr double kUnits = 24;       // of a pictogram, each way
constexpr double kLineWidth = 1.5;  // in these
constexpr double kPin = 0.2;        // radius

// The trident of USB, upright.
Pictogram usb() {
    Pictogram path;
    path.addEllipse(QPointF(7, 20), 2, 2);
    path.moveTo(7, 18);
    path.lineTo(7, 2);
    path.moveTo(5, 5);
    path.lineTo(7, 2);
    path.lineTo(9, 5);
    path.moveTo(7, 15);
    path.lineTo(3, 12);
    path.lineTo(3, 9);
    path.moveTo(7, 13);
    path.lineTo(11, 10);
    path.lineTo(11, 8);
    path.addRect(10, 6, 2, 2);
    path.addEllipse(QPointF(3, 8), 1, 1);
    return path;
}

// A plug with its pins, from the front.
Pictogram serial() {
    Pictogram path;
    path.moveTo(1, 6);
    path.lineTo(14, 6);
    path.lineTo(12, 16);
    path.lineTo(3, 16);
    path.closeSubpath();
    for (int pin = 0; pin < 3; ++pin)
        path.addEllipse(QPointF(4.5 + 3 * pin, 9.5), kPin, kPin);
    for (int pin = 0; pin < 2; ++pin)
        path.addEllipse(QPointF(6 + 3 * pin, 13), kPin, kPin);
    return path;
}

// Down into a tray.
Pictogram install() {
    Pictogram path;
    path.moveTo(19, 6);
    path.lineTo(19, 16);
    path.moveTo(16, 13);
    path.lineTo(19, 16);
    path.lineTo(22, 13);
    path.moveTo(15, 18);
    path.lineTo(15, 21);
    path.lineTo(23, 21);
    path.lineTo(23, 18);
    return path;
}

Pictogram flame() {
    Pictogram path;
    path.moveTo(19, 5);
    path.cubicTo(20, 10, 23, 11, 23, 16);
    path.cubicTo(23, 19, 21, 21, 19, 21);
    path.cubicTo(17, 21, 15, 19, 15, 16);
    path.cubicTo(15, 14, 16, 13, 17, 12);
    path.cubicTo(18, 10, 19, 8, 19, 5);
    return path;
}

Pictogram magnifier() {
    Pictogram path;
    path.addEllipse(QPointF(18, 14), 3, 3);
    path.moveTo(20.2, 16.2);
    path.lineTo(23, 20);
    return path;
}

Pictogram both(Pictogram first, const Pictogram& second) {
    first.addPath(second);
    return first;
}

}  // namespace

Pictogram pictograms::installUsb() {
    return both(usb(), install());
}

Pictogram pictograms::installSerial() {
    return both(serial(), install());
}

Pictogram pictograms::burnUsb() {
    return both(usb(), flame());
}

Pictogram pictograms::burnSerial() {
    return both(serial(), flame());
}

Pictogram pictograms::testSerial() {
    return both(serial(), magnifier());
}

PictogramButton::PictogramButton(const Pictogram& pictogram, const QString& text, QWidget* parent)
    : QPushButton(text, parent), pictogram_(pictogram) {}

void PictogramButton::paintEvent(QPaintEvent* /*event*/) {
    QStylePainter painter(this);
    QStyleOptionButton option;
    initStyleOption(&option);
    option.text.clear();
    painter.drawControl(QStyle::CE_PushButton, option);

    const QColor colour = option.palette.color(QPalette::ButtonText);
    const double side = std::min(width(), height()) * 0.4;
    const int textHeight = fontMetrics().height();
    const double top = (height() - side - 1.5 * textHeight) / 2;
    painter.setPen(colour);
    painter.drawText(QRectF(0, top + side + 0.5 * textHeight, width(), textHeight), Qt::AlignCenter,
                     text());
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate((width() - side) / 2, top);
    painter.scale(side / kUnits, side / kUnits);
    painter.setPen(QPen(colour, kLineWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPath(pictogram_);
}
