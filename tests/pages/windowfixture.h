// The main window over a virtual USB bus, worked by an operator who has a package and a list of
// serial numbers at hand.
#pragma once

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "demo/operator/windowoperator.h"
#include "simulator/packagebuilder.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "support/firststartfixture.h"
#include "window/vorlanfactorytooldlg.h"

class WindowFixture : public FirstStartFixture {
  protected:
    static constexpr std::uint32_t kSnAddress = 0x7FF004;

    WindowFixture() {
        simulator::PackageBuilder()
            .add("burner.img", std::string(5000, 'b'))
            .add("flashboot.bin", flashboot)
            .add("master.bin", master)
            .write("package.vrk");
    }

    void SetUp() override { openWindow(); }

    void TearDown() override {
        window.reset();
        EXPECT_EQ(bus.openHandles(), 0U);
        EXPECT_EQ(bus.errors(), std::vector<std::string>());
        for (const auto& device : devices)
            EXPECT_EQ(device->errors(), std::vector<std::string>());
    }

    void openWindow() {
        window = std::make_unique<CVorlanFactoryToolDlg>();
        window->OnInitDialog();
        hands = std::make_unique<simulator::WindowOperator>(*window);
    }

    QString pathOf(const std::string& name) const {
        return QString::fromStdString((std::filesystem::current_path() / name).string());
    }

    void chooseFirmware(const QString& path) {
        prompts_.choose(path);
        ASSERT_TRUE(hands->press("选择固件"));
    }

    void importNumbers(const std::string& rows) {
        writeContent("numbers.csv", rows);
        prompts_.choose(pathOf("numbers.csv"));
        ASSERT_TRUE(hands->press("导入SN"));
        EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({notice("导入成功")}));
    }

    static std::string row(int number, bool burned = false) {
        return "SN-" + std::to_string(number) + (burned ? ",1\r\n" : ",0\r\n");
    }

    // Opens the USB page and chooses the package.
    void prepare() {
        ASSERT_TRUE(hands->press("USB烧录"));
        chooseFirmware(pathOf("package.vrk"));
    }

    void prepareAndStart() {
        prepare();
        ASSERT_TRUE(hands->press("开始烧录"));
    }

    static std::string port(int number) { return "0-" + std::to_string(number); }

    static std::shared_ptr<simulator::VirtualUsbDevice> makeDevice(
        const simulator::UsbDeviceOptions& options = {}) {
        return std::make_shared<simulator::VirtualUsbDevice>(options);
    }

    std::shared_ptr<simulator::VirtualUsbDevice> plug(
        int number, std::shared_ptr<simulator::VirtualUsbDevice> device = makeDevice()) {
        devices.push_back(device);
        bus.plug(port(number), device);
        return device;
    }

    simulator::TileView tile(int number) const {
        return hands->tileNamed(QString::fromStdString("\\" + port(number)));
    }

    // Waits for the port's tile to read so.
    testing::AssertionResult reads(int number, const QString& status) {
        if (simulator::WindowOperator::waitFor([&] { return tile(number).status == status; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "it reads " << tile(number).status.toStdString();
    }

    testing::AssertionResult readsLike(int number, const QString& beginning) {
        if (simulator::WindowOperator::waitFor(
                [&] { return tile(number).status.startsWith(beginning); }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "it reads " << tile(number).status.toStdString();
    }

    // Whether the operator is shown a box that begins so, before or behind others.
    bool hasBox(const QString& beginning) {
        return simulator::WindowOperator::waitFor([&] {
            otherBoxes();
            const auto box = std::find_if(boxes_.begin(), boxes_.end(), [&](const QString& text) {
                return text.startsWith(beginning);
            });
            const bool found = box != boxes_.end();
            if (found)
                boxes_.erase(box);
            return found;
        });
    }

    // Those that nobody has asked for so far.
    const std::vector<QString>& otherBoxes() {
        for (const Box& box : prompts_.takeBoxes())
            boxes_.push_back(box.text);
        return boxes_;
    }

    // What the record of production tells of the burns at a place: the label before the package,
    // and number, address, outcome and last text behind it.
    std::vector<std::string> recordedAt(const std::string& place) const {
        const std::string sha256 =
            QCryptographicHash::hash(QByteArray::fromStdString(contentOf("package.vrk")),
                                     QCryptographicHash::Sha256)
                .toHex()
                .toStdString();
        const std::string package =
            ",\"" + pathOf("package.vrk").toStdString() + "\",\"" + sha256 + "\"";
        std::vector<std::string> rows;
        std::istringstream record(contentOf("log/record.csv"));
        for (std::string row; std::getline(record, row);) {
            const std::size_t at = row.find(",\"" + place + "\",");
            const std::size_t seconds = row.rfind(',');
            const std::size_t middle = row.find(package);
            if (at == std::string::npos || middle == std::string::npos)
                continue;
            const std::size_t label = at + place.size() + 4;
            rows.push_back(row.substr(label, middle - label) +
                           row.substr(middle + package.size(), seconds - middle - package.size()));
        }
        return rows;
    }

    bool isBurned(const simulator::VirtualUsbDevice& device, const std::string& sn) const {
        return device.flash().holds(0x0, bytesOf(flashboot)) &&
               device.flash().holds(0x10000, bytesOf(master)) &&
               (sn.empty() || device.flash().holds(kSnAddress, bytesOf(sn)));
    }

    static std::vector<std::uint8_t> bytesOf(const std::string& text) {
        return {text.begin(), text.end()};
    }

    const std::string flashboot = std::string(3000, 'f');
    const std::string master = std::string(30'000, 'm') + "end";

    simulator::VirtualUsbBus bus;
    std::vector<std::shared_ptr<simulator::VirtualUsbDevice>> devices;
    std::unique_ptr<CVorlanFactoryToolDlg> window;
    std::unique_ptr<simulator::WindowOperator> hands;

  private:
    std::vector<QString> boxes_;
};
