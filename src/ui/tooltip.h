// Tool tips for texts that may not fit where they stand.
#pragma once

#include <QString>
#include <QWidget>

// Shows the text as it is, whatever it looks like: the toolkit takes some texts for markup.
void setPlainToolTip(QWidget& widget, const QString& text);
