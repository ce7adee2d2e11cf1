#include "ui/tooltip.h"

void setPlainToolTip(QWidget& widget, const QString& text) {
    widget.setToolTip(text.isEmpty() ? text
                                     : QStringLiteral("<p>%1</p>").arg(text.toHtmlEscaped()));
}
