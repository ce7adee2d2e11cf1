#include "ui/customstatic.h"

#include <QPainter>

CCustomStatic::CCustomStatic(QWidget* parent) : QLabel(parent) {
    setTextFormat(Qt::PlainText);
    QPalette sameWhenGrey = palette();
    sameWhenGrey.setColor(QPalette::Disabled, QPalette::Base,
                          sameWhenGrey.color(QPalette::Active, QPalette::Base));
    setPalette(sameWhenGrey);
    setBackgroundRole(QPalette::Base);
    setForegroundRole(QPalette::Text);
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
