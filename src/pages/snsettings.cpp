#include "pages/snsettings.h"

#include <string>

#include "platform/file.h"
#include "storage/globalstorage.h"
#include "ui/longwork.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "ui/tooltip.h"
#include "utils/fileutil.h"
#include "utils/logutil.h"
#include "utils/text.h"

#define LOG_TAG "SnSettings"

namespace {

constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

const QString kFilter = QStringLiteral("SN文件(*.csv)");
const QString kWrongFormat = QStringLiteral(
    "文件解析失败，请检查文件格式：必须是以半角','分隔，\n每行两列且以CRLF结尾的csv文件！");
const QString kImported = QStringLiteral("导入成功");
const QString kRepeated = QStringLiteral(
    "SN文件中有 %1 行的SN号与前面的行重复，第一处在第 %2 行：SN=%3。\n"
    "每个SN号最多分配一次，已烧录的不再分配。");
const QString kLostMarks = QStringLiteral(
    "SN文件中有 %1 个已烧录的SN号被改回未烧录，第一个：SN=%2。\n"
    "这些SN号不再分配，请检查是否有其他程序覆盖了该文件。");
const QString kNotSaved =
    QStringLiteral("设置无法保存到 global_storage：%1\n本次运行中仍然有效，重启后将丢失。");
const QString kWrongAddress = QStringLiteral("地址格式错误，请输入16进制地址！");

void tell(QWidget* parent, const QString& text) {
    prompts().showBox(parent, text, strings::kNotice.toString(), BoxType::kWarning);
}

// Opens when the event at hand has been dealt with.
void tellLater(QWidget* parent, const QString& text) {
    QMetaObject::invokeMethod(
        parent, [parent, text] { tell(parent, text); }, Qt::QueuedConnection);
}

void saveSettings(QWidget* parent) {
    static QString toldReason;  // of the failures since the last success
    if (GlobalStorage::getInstance().save()) {
        toldReason.clear();
        return;
    }
    const QString reason = QString::fromStdString(platform::lastErrorText());
    LOG_E("the settings cannot be saved: they hold for this run only: %s",
          reason.toStdString().c_str());
    if (reason != toldReason)
        tellLater(parent, kNotSaved.arg(reason));
    toldReason = reason;
}

}  // namespace

SnLoad loadSnFile(QWidget& parent, const std::wstring& path) {
    bool loaded = false;
    const bool finished =
        runLongWork(parent, QStringLiteral("正在读取SN号……"), [&](const PercentReport&) {
            loaded = GlobalStorage::getInstance().getSnFile().load(path);
        });
    if (loaded)
        return SnLoad::kLoaded;
    return finished ? SnLoad::kFailed : SnLoad::kCancelled;
}

void importSnFile(QWidget* parent) {
    GlobalStorage& storage = GlobalStorage::getInstance();
    SerialNumFile& snFile = storage.getSnFile();
    if (snFile.isInUse()) {  // a serial burn that was stopped still writes its number
        tell(parent, strings::kNoImportWhileBurning.toString());
        return;
    }
    const std::optional<QString> chosen = prompts().chooseFile(parent, kFilter);
    if (!chosen)
        return;
    const std::wstring path = chosen->toStdWString();
    if (!fileutil::fileExists(path))
        return;
    const SnLoad end = loadSnFile(*parent, path);
    if (end == SnLoad::kFailed)
        tell(parent, kWrongFormat);
    if (end != SnLoad::kLoaded)
        return;
    storage.setSnFilePath(path);
    saveSettings(parent);
    tell(parent, kImported);
    tellSnFindings(parent);
}

void tellSnFindings(QWidget* parent) {
    const SerialNumFile::Findings findings = GlobalStorage::getInstance().getSnFile().findings();
    const auto shown = [](const std::string& sn) {
        return QString::fromStdWString(text::widen(sn));
    };
    if (findings.repeatedRows != 0)
        tellLater(parent, kRepeated.arg(findings.repeatedRows)
                              .arg(findings.firstRepeatedLine)
                              .arg(shown(findings.firstRepeated)));
    if (findings.lostMarks != 0)
        tellLater(parent, kLostMarks.arg(findings.lostMarks).arg(shown(findings.firstLost)));
}

void showSnPath(QLineEdit& pathBox) {
    GlobalStorage& storage = GlobalStorage::getInstance();
    const bool loaded = storage.getSnFile().isLoaded() != 0;
    const QString path = loaded ? QString::fromStdWString(storage.getSnFilePath()) : QString();
    pathBox.setText(path);
    setPlainToolTip(pathBox, path);
    pathBox.setEnabled(loaded);
}

bool storeSnAddress(QWidget* parent, const QLineEdit& addressBox) {
    const std::int32_t address = text::parseHex(addressBox.text().toStdString());
    if (address == 0) {
        tell(parent, kWrongAddress);
        return false;
    }
    GlobalStorage::getInstance().setSnBurnAddr(static_cast<std::uint32_t>(address));
    saveSettings(parent);
    return true;
}

void showSnAddress(QLineEdit& addressBox) {
    const std::uint32_t address = GlobalStorage::getInstance().getSnBurnAddr();
    if (address != kNoAddress)
        addressBox.setText(QStringLiteral("0x%1").arg(address, 0, 16));
}
