#include "window/aboutdlg.h"

#include <QApplication>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <algorithm>

#include "ui/dialogtemplate.h"

CAboutDlg::CAboutDlg(QWidget* parent) : QDialog(parent) {
    setWindowTitle(QStringLiteral("关于 VorlanFactoryTool"));
    const DialogTemplate controls(this, 9, {195, 62});
    QLabel* const icon = controls.label({14, 14, 20, 20}, {});
    icon->setPixmap(QApplication::windowIcon().pixmap(std::min(icon->width(), icon->height())));
    controls.label(
        {42, 14, 146, 8},
        QStringLiteral("VorlanFactoryTool，%1 版").arg(QApplication::applicationVersion()));
    QPushButton* const ok = controls.button({138, 41, 50, 14}, QStringLiteral("确定"));
    ok->setDefault(true);
    connect(ok, &QPushButton::clicked, this, &QDialog::accept);
}
