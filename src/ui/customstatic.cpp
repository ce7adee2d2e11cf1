#include "ui/customstatic.h"

CCustomStatic::CCustomStatic(QWidget* parent) : QLabel(parent) {
    setTextFormat(Qt::PlainText);
    QPalette white = palette();
    white.setColor(QPalette::Window, Qt::white);
    setPalette(white);
    setAutoFillBackground(true);
}
