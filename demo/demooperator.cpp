#include "demo/demooperator.h"

#include <QPixmap>

#include "storage/usbtagmap.h"

namespace simulator {
namespace {

const QString kStart = QStringLiteral("开始烧录");
const QString kStop = QStringLiteral("停止烧录");
const QString kImport = QStringLiteral("导入SN");
const QString kNotice = QStringLiteral("提示");

}  // namespace

bool DemoOperator::visitPages() {
    return takePicture("main-page.png") && openSerialPage() && takePicture("serial-page.png") &&
           openUsbPage() && takePicture("usb-page-idle.png");
}

bool DemoOperator::openUsbPage() {
    return press(QStringLiteral("USB烧录"));
}

bool DemoOperator::openSerialPage() {
    return press(QStringLiteral("串口烧录"));
}

bool DemoOperator::choosePackage(ScriptedAnswers& answers, const std::string& path) {
    answers.expectFile(QStringLiteral("刷机固件(*.vrk *.zip)"), QString::fromStdString(path));
    return press(QStringLiteral("选择固件"));
}

bool DemoOperator::importNumbers(ScriptedAnswers& answers, const std::string& path) {
    answers.expectFile(QStringLiteral("SN文件(*.csv)"), QString::fromStdString(path));
    answers.expectBox(kNotice, QStringLiteral("导入成功"), BoxType::kWarning);
    return press(kImport);
}

bool DemoOperator::startBurning() {
    return press(kStart) && (isBurning() || report_.fail("burning does not start"));
}

bool DemoOperator::labelPlaces(UsbDevices& devices) {
    labels_ = {{devices.all().front().deviceId, QStringLiteral("L1")},
               {devices.toUnplug().deviceId, QStringLiteral("L1 second hub")},
               {devices.failingInFlash().deviceId, QStringLiteral("L2 test cable")}};
    for (const auto& [deviceId, label] : labels_) {
        if (!hands_.typeTag(hands_.tileNumber(QString::fromStdString(deviceId)), label))
            return report_.fail("no label can be typed for " + deviceId);
    }
    return press(QStringLiteral("保存标签")) && checkSavedLabels();
}

// Every place with its tile's number, and just the labels that were typed.
bool DemoOperator::checkSavedLabels() {
    UsbTagMap saved;
    if (!saved.load())
        return report_.fail("tag_map cannot be read");
    const std::vector<TileView> tiles = hands_.tiles();
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        const std::wstring place = makePlugId(tiles[i].name.toStdWString());
        const UsbTag tag = saved.findTag(place);
        const QString label = labelOf(tiles[i].name.toStdString());
        if (tag.index != static_cast<int>(i) || tag.tag != label.toStdWString())
            return report_.fail("tag_map is wrong about " + tiles[i].name.toStdString());
    }
    return true;
}

bool DemoOperator::tryWhatMustWait(ScriptedAnswers& answers) {
    for (const QString& entry : {kImport, QStringLiteral("导入SN号")}) {
        answers.expectBox(kNotice, QStringLiteral("正在烧录中，不能导入！"), BoxType::kWarning);
        if (!press(entry))
            return false;
    }
    answers.expectBox(QStringLiteral("烧录进行中"),
                      QStringLiteral("关闭软件将会造成正在烧录的固件烧录\n失败，确认关闭吗？"),
                      BoxType::kWarningOkCancel, false);
    if (window_.close() || !window_.isVisible())
        return report_.fail("the window closes upon a running burn");
    return isBurning() || report_.fail("the question alone stops burning");
}

bool DemoOperator::stopBurning() {
    if (!press(kStop))
        return false;
    return (hands_.isEnabled(kStart) && hands_.canRead(QStringLiteral("烧录已停止！")) &&
            hands_.tiles().empty()) ||
           report_.fail("burning does not stop");
}

bool DemoOperator::takePicture(const char* name) {
    return window_.grab().save(QString::fromUtf8(name)) ||
           report_.fail(std::string("cannot write ") + name);
}

QString DemoOperator::labelOf(const std::string& deviceId) const {
    const auto label = labels_.find(deviceId);
    return label != labels_.end() ? label->second : QString();
}

unsigned DemoOperator::burnCount() const {
    const QLineEdit* const box = hands_.edit(QStringLiteral("刷机计数"));
    return box != nullptr ? box->text().toUInt() : 0;
}

bool DemoOperator::press(const QString& text) {
    return hands_.press(text) || report_.fail("cannot press " + text.toStdString());
}

}  // namespace simulator
