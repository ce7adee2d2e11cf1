#include "serialburnpage.h"

#include "ui/dialogtemplate.h"

CSerialBurnPage::CSerialBurnPage() : Page(QStringLiteral("串口烧录")) {}

void CSerialBurnPage::OnInitDialog() {
    const DialogTemplate controls(this, kFontPoints, {kWidth, kHeight});
    controls.label({202, 159, 145, 11}, QStringLiteral("功能开发中！"))
        ->setAlignment(Qt::AlignCenter);
}
