#include "window/mainpage.h"

#include <QFileInfo>
#include <QProcess>

#include "ui/dialogtemplate.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "utils/fileutil.h"

namespace {

// What the operator reads when a program does not start.
constexpr int kNoPermission = 5;
constexpr int kNoProgram = 11;

}  // namespace

CMainPage::CMainPage(PageSheet& sheet) : Page(QStringLiteral("主页")), sheet_(sheet) {}

void CMainPage::OnInitDialog() {
    const DialogTemplate controls(this, fontPoints(), {kWidth, kHeight});
    const auto add = [&](const QRect& rectangle, const QString& text, const Pictogram& pictogram,
                         auto action) {
        connect(controls.button(rectangle, text, pictogram), &QPushButton::clicked, this, action);
    };
    add({139, 90, 60, 60}, QStringLiteral("安装USB驱动"), pictograms::installUsb(),
        [this] { launchInstaller(L"InstallDriver"); });
    add({249, 90, 60, 60}, QStringLiteral("安装串口驱动"), pictograms::installSerial(),
        [this] { launchInstaller(L"InstallUartDriver"); });
    add({359, 90, 60, 60}, QStringLiteral("USB烧录"), pictograms::burnUsb(),
        [this] { sheet_.setActivePage(kUsbPage); });
    add({139, 179, 60, 60}, QStringLiteral("串口烧录"), pictograms::burnSerial(),
        [this] { sheet_.setActivePage(kSerialPage); });
    add({249, 180, 60, 60}, QStringLiteral("串口测试"), pictograms::testSerial(), [this] {
        prompts().showBox(this, QStringLiteral("功能开发中！"), strings::kNotice.toString(),
                          BoxType::kWarning);
    });
}

void CMainPage::launchInstaller(const std::wstring& name) {
    const std::wstring path = fileutil::inCurrentDirectory(L"\\drivers\\" + name);
    if (!fileutil::fileExists(path)) {
        prompts().showBox(
            this, QStringLiteral("找不到安装程序%1.exe！").arg(QString::fromStdWString(name)),
            strings::kNotice.toString(), BoxType::kWarning);
        return;
    }
    const QString program = QString::fromStdWString(path);
    if (QProcess::startDetached(program, {}))
        return;
    const int reason = QFileInfo(program).isExecutable() && !QFileInfo(program).isDir()
                           ? kNoProgram
                           : kNoPermission;
    prompts().showBox(this,
                      QStringLiteral("ShellExecute, path=%1, ret=%2").arg(program).arg(reason), {},
                      BoxType::kPlain);
}
