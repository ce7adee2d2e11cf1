#include "ui/customstatic.h"

#include <QPainter>

CCustomStatic::CCustomStatic(QWidget* parent) : QLabel(parent) {
    setTextFormat(Qt::PlainText);
    QPalette white = palette();
    white.setColor(QPalette::Window, Qt::white);
    setPalette(white);
    setAutoFillBackground(true);
}

void CCustomStatic::paintEvent(QPaintEvent* event) {
    if (!baseLine_) {
        QLabel::paintEvent(event);
        return;
    }
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    painter.drawText(0, *baseLine_, text().replace('\n', ' '));
}
