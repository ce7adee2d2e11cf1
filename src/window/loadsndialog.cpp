#include "window/loadsndialog.h"

#include <QLineEdit>
#include <QPushButton>

#include "pages/snsettings.h"
#include "ui/dialogtemplate.h"

LoadSnDialog::LoadSnDialog(QWidget* parent) : QDialog(parent) {
    setWindowTitle(QStringLiteral("导入SN号"));
    const DialogTemplate controls(this, 8, {415, 78});

    QLineEdit* const path = controls.readOnlyEdit({81, 19, 244, 14}, QStringLiteral("文件路径"));
    QPushButton* const import = controls.button({337, 18, 50, 16}, QStringLiteral("导入SN号"));
    QLineEdit* const address = controls.edit({81, 45, 244, 14}, QStringLiteral("SN烧录地址"));
    QPushButton* const set = controls.button({337, 43, 50, 16}, QStringLiteral("设置"));
    controls.label({21, 22, 44, 8}, QStringLiteral("文件路径："), path);
    controls.label({21, 49, 53, 8}, QStringLiteral("SN烧录地址："), address);

    showSnPath(*path);
    showSnAddress(*address);
    import->setFocus();
    connect(import, &QPushButton::clicked, this, [this, path] {
        importSnFile(this);
        showSnPath(*path);
    });
    connect(set, &QPushButton::clicked, this, [this, address] { storeSnAddress(this, *address); });
}
