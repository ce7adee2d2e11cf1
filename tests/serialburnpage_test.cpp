// The serial page in the main window, over virtual devices on real ptys: a port's road from arrival
// to success, every failure on its tile, and what the operator can do meanwhile.
#include "serialburnpage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "simulator/virtualserialdevice.h"
#include "simulator/virtualserialports.h"
#include "windowfixture.h"

using namespace std::chrono_literals;
using simulator::SerialDeviceOptions;
using simulator::SerialFault;
using simulator::SerialFaultPoint;
using simulator::SerialFaultRule;
using simulator::TileView;
using simulator::VirtualSerialDevice;
using simulator::WindowOperator;

namespace {

constexpr int kLongMs = 60'000;  // a burn pauses for 2 s, and silence is waited for many times

const QString kConnect = "请连接待烧录的设备！";
const QString kStopped = "烧录已停止！";
const QString kRemoved = "设备已移除！";
const QString kPreparing = "准备中...";

class SerialBurnPageTest : public WindowFixture {
  protected:
    SerialBurnPageTest() { writeContent("ramloader/flash_proxy.img", proxy); }

    ~SerialBurnPageTest() override {
        for (const auto& device : serialDevices)
            EXPECT_EQ(device->errors(), std::vector<std::string>());
    }

    // Opens the serial page with a package chosen.
    void prepareSerial() {
        ASSERT_TRUE(hands->press("串口烧录"));
        chooseFirmware(pathOf("package.vrk"));
    }

    static QString nameOf(int number) { return "ttyUSB" + QString::number(number); }

    VirtualSerialDevice& makeSerial(int number, SerialDeviceOptions options = {}) {
        serialDevices.push_back(std::make_unique<VirtualSerialDevice>(
            directory_.path() / nameOf(number).toStdString(), std::move(options)));
        return *serialDevices.back();
    }

    void arrive(VirtualSerialDevice& device) {
        device.plugIn();
        ports.arrive(device.portPath());
    }

    void leave(VirtualSerialDevice& device) {
        device.unplug();
        ports.leave(device.portPath());
    }

    VirtualSerialDevice& plugSerial(int number, SerialDeviceOptions options = {}) {
        VirtualSerialDevice& device = makeSerial(number, std::move(options));
        arrive(device);
        return device;
    }

    testing::AssertionResult shows(int number, const QString& beginning) {
        const QString name = nameOf(number);
        if (WindowOperator::waitFor(
                [&] { return hands->tileNamed(name).status.startsWith(beginning); }, kLongMs))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "it reads " << hands->tileNamed(name).status.toStdString();
    }

    bool canRead(const QString& text) {
        return WindowOperator::waitFor([&] { return hands->canRead(text); });
    }

    bool holdsAll(const VirtualSerialDevice& device, const std::string& sn) const {
        return device.flash().holds(0x0, bytesOf(flashboot)) &&
               device.flash().holds(0x10000, bytesOf(master)) &&
               (sn.empty() || device.flash().holds(kSnAddress, bytesOf(sn))) &&
               device.downloadedProxy() == bytesOf(proxy);
    }

    const std::string proxy = std::string(3000, 'p');
    simulator::VirtualSerialPorts ports;
    std::vector<std::unique_ptr<VirtualSerialDevice>> serialDevices;
};

TEST_F(SerialBurnPageTest, BurnsWhatIsThereAndWhatComes) {
    prepareSerial();
    importNumbers(row(1) + row(2) + row(3));
    VirtualSerialDevice& present = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_FALSE(hands->isEnabled("选择固件"));
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    VirtualSerialDevice& late = plugSerial(1, {.romStartUp = 1500ms});
    ASSERT_TRUE(shows(1, kPreparing));
    EXPECT_EQ(hands->tiles()[0].name, "ttyUSB0");
    EXPECT_EQ(hands->tiles()[2].name, "DEV3");
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-2"));
    EXPECT_TRUE(holdsAll(present, "SN-1"));
    EXPECT_TRUE(holdsAll(late, "SN-2"));
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));
}

}  // namespace
