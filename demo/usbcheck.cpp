#include "demo/usbcheck.h"

#include <algorithm>
#include <span>
#include <vector>

namespace simulator {

bool UsbCheck::check(UsbDevices& devices) {
    bool correct = true;
    std::size_t number = 0;
    for (const UsbDevice& device : devices.all())
        correct = checkDevice(++number, device) && correct;
    correct = proof_.checkSerialNumbers(report_) && correct;
    correct = proof_.checkBurnCount(report_, worker_) && correct;
    for (const std::string& error : devices.busErrors())
        correct = report_.fail("USB bus: " + error);
    return correct;
}

bool UsbCheck::checkDevice(std::size_t number, const UsbDevice& device) {
    std::string trouble = troubleWithTile(device);
    if (trouble.empty() && device.isToBeBurned())
        trouble = troubleWithBurned(device);
    else if (trouble.empty() && device.fate == UsbDevice::Fate::kFailsInRom)
        trouble = troubleInRom(device);
    else if (trouble.empty())
        trouble = troubleInFlash(device);
    for (const std::string& error : device.device->errors())
        trouble += "; " + error;

    const char* const proof =
        device.isToBeBurned() ? "flash identical to the package" : "failed where it should";
    report_.line("device %2zu  %-18s %s  %s", number, device.port.c_str(),
                 device.outcome.status.toStdString().c_str(),
                 trouble.empty() ? proof : ("WRONG: " + trouble).c_str());
    return trouble.empty();
}

// What is wrong with what every tile must show, whatever became of its device; empty if nothing.
std::string UsbCheck::troubleWithTile(const UsbDevice& device) const {
    if (device.outcome.name != QString::fromStdString(device.deviceId))
        return "no tile bears its name";
    if (!device.outcome.active)
        return "its tile is greyed out";
    if (device.outcome.tag != worker_.labelOf(device.deviceId))
        return "its tile shows a wrong label";
    return {};
}

std::string UsbCheck::troubleWithBurned(const UsbDevice& device) {
    std::string trouble = proof_.troubleWithBurned(device.device->flash(), device.outcome);
    if (!trouble.empty())
        return trouble;
    return device.device->downloadedBurner() == package_.burner()
               ? ""
               : "burner image differs from the package";
}

// What is wrong with a device that must have failed in its ROM loader; empty if nothing.
std::string UsbCheck::troubleInRom(const UsbDevice& device) const {
    if (device.outcome.status !=
            QStringLiteral("error=0xf1, des=Return Fatal Error! (retries = 0)") ||
        device.outcome.percent != 0)
        return "should have failed in its ROM loader";
    return device.device->flash().writtenRanges().empty() ? ""
                                                          : "flash written before the burner ran";
}

// The same of a device that must have failed in flash just where it was told to.
std::string UsbCheck::troubleInFlash(const UsbDevice& device) const {
    // The first image whole, and of the second all chunks but the refused one.
    const Flash& flash = device.device->flash();
    std::vector<Flash::Range> expected;
    std::uint32_t chunks = UsbDevices::kGoodChunks;
    for (const SampleImage& image : package_.images()) {
        const auto size = std::min(image.bytes.size(), std::size_t{chunks} * kChunkSize);
        if (size == 0)
            break;
        if (!flash.holds(image.address, std::span(image.bytes).first(size)))
            return "flash differs from the package";
        expected.push_back({image.address, size});
        chunks -= static_cast<std::uint32_t>((size + kChunkSize - 1) / kChunkSize);
    }
    if (flash.writtenRanges() != expected)
        return "should have failed in flash after " + std::to_string(UsbDevices::kGoodChunks) +
               " chunks";
    const std::string lastImage = package_.images()[expected.size() - 1].name;
    const int percent = device.outcome.percent;
    const QString lastProgress = QStringLiteral("正在写入 .\\temp_image\\%1, 进度 %2%")
                                     .arg(QString::fromStdString(lastImage))
                                     .arg(percent);
    return percent > 0 && percent < 100 && device.outcome.status == lastProgress
               ? ""
               : "the tile should show the last progress";
}

}  // namespace simulator
