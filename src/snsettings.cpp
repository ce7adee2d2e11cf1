#include "snsettings.h"

#include <string>

#include "storage/globalstorage.h"
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
const QString kWrongAddress = QStringLiteral("地址格式错误，请输入16进制地址！");

void tell(QWidget* parent, const QString& text) {
    prompts().showBox(parent, text, strings::kNotice.toString(), BoxType::kWarning);
}

void saveSettings() {
    if (!GlobalStorage::getInstance().save())
        LOG_E("the settings cannot be saved: they hold for this run only");
}

}  // namespace

bool importSnFile(QWidget* parent, QLineEdit& pathBox) {
    SerialNumFile& snFile = GlobalStorage::getInstance().getSnFile();
    if (snFile.isInUse()) {  // a serial burn that was stopped still writes its number
        tell(parent, strings::kNoImportWhileBurning.toString());
        return false;
    }
    const std::optional<QString> chosen = prompts().chooseFile(parent, kFilter);
    if (!chosen)
        return false;
    pathBox.setText(*chosen);
    setPlainToolTip(pathBox, *chosen);
    pathBox.setEnabled(true);
    const std::wstring path = chosen->toStdWString();
    if (!fileutil::fileExists(path))
        return false;
    GlobalStorage& storage = GlobalStorage::getInstance();
    if (!snFile.load(path)) {
        tell(parent, kWrongFormat);
        return false;
    }
    storage.setSnFilePath(path);
    saveSettings();
    tell(parent, kImported);
    return true;
}

bool storeSnAddress(QWidget* parent, const QLineEdit& addressBox) {
    const std::int32_t address = text::parseHex(addressBox.text().toStdString());
    if (address == 0) {
        tell(parent, kWrongAddress);
        return false;
    }
    GlobalStorage::getInstance().setSnBurnAddr(static_cast<std::uint32_t>(address));
    saveSettings();
    return true;
}

void showSnAddress(QLineEdit& addressBox) {
    const std::uint32_t address = GlobalStorage::getInstance().getSnBurnAddr();
    if (address != kNoAddress)
        addressBox.setText(QStringLiteral("0x%1").arg(address, 0, 16));
}
