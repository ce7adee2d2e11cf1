#include "simulator/demo/burncheck.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <span>
#include <utility>
#include <vector>

#include "storage/globalstorage.h"

namespace simulator {
namespace {

constexpr std::size_t kSnLength = 15;

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::uint32_t snAddress() {
    return GlobalStorage::getInstance().getSnBurnAddr();
}

std::string serialNumberIn(const Flash& flash) {
    const auto bytes = flash.read(snAddress(), kSnLength);
    return std::string(bytes.begin(), bytes.end());
}

// The numbers that can still be handed out.
std::set<std::string> freeNumbers() {
    SerialNumFile& pool = GlobalStorage::getInstance().getSnFile();
    std::vector<SerialNumFile::SnRecord*> taken;
    while (SerialNumFile::SnRecord* const record = pool.takeNext())
        taken.push_back(record);
    std::set<std::string> numbers;
    for (SerialNumFile::SnRecord* const record : taken) {
        numbers.insert(record->sn);
        pool.releaseRecord(record);
    }
    return numbers;
}

}  // namespace

BurnCheck::BurnCheck(Report& report, const SamplePackage& package, const DemoOperator& worker,
                     std::string csvPath, unsigned numbers)
    : report_(report),
      package_(package),
      worker_(worker),
      csvPath_(std::move(csvPath)),
      numbers_(numbers) {}

bool BurnCheck::check(DemoDevices& devices) {
    bool correct = true;
    std::size_t number = 0;
    for (const DemoDevice& device : devices.all())
        correct = checkDevice(++number, device) && correct;
    correct = checkSerialNumbers() && correct;
    correct = checkBurnCount() && correct;
    for (const std::string& error : devices.busErrors())
        correct = report_.fail("USB bus: " + error);
    return correct;
}

bool BurnCheck::checkDevice(std::size_t number, const DemoDevice& device) {
    std::string trouble = troubleWithTile(device);
    if (trouble.empty() && device.isToBeBurned())
        trouble = troubleWithBurned(device);
    else if (trouble.empty() && device.fate == DemoDevice::Fate::kFailsInRom)
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
std::string BurnCheck::troubleWithTile(const DemoDevice& device) const {
    if (device.outcome.name != QString::fromStdString(device.deviceId))
        return "no tile bears its name";
    if (!device.outcome.active)
        return "its tile is greyed out";
    if (device.outcome.tag != worker_.labelOf(device.deviceId))
        return "its tile shows a wrong label";
    return {};
}

// What is wrong with a device that must hold the package and a number of its own; empty if nothing.
std::string BurnCheck::troubleWithBurned(const DemoDevice& device) {
    const Flash& flash = device.device->flash();
    const std::string sn = serialNumberIn(flash);
    if (device.outcome.status != QString::fromStdString("烧录成功！SN=" + sn))
        return "tile and flash disagree on the serial number";
    if (device.outcome.percent != 100)
        return "the bar is not full";
    if (!burned_.insert(sn).second)
        return "serial number given twice";
    if (!holdsPackage(flash, sn))
        return "flash differs from the package";
    if (device.device->downloadedBurner() != package_.burner())
        return "burner image differs from the package";
    return {};
}

// The same of a device that must have failed in its ROM loader.
std::string BurnCheck::troubleInRom(const DemoDevice& device) const {
    if (device.outcome.status !=
            QStringLiteral("error=0xf1, des=Return Fatal Error! (retries = 0)") ||
        device.outcome.percent != 0)
        return "should have failed in its ROM loader";
    return device.device->flash().writtenRanges().empty() ? ""
                                                          : "flash written before the burner ran";
}

// The same of a device that must have failed in flash just where it was told to.
std::string BurnCheck::troubleInFlash(const DemoDevice& device) const {
    // The first image whole, and of the second all chunks but the refused one.
    const Flash& flash = device.device->flash();
    std::vector<Flash::Range> expected;
    std::uint32_t chunks = DemoDevices::kGoodChunks;
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
        return "should have failed in flash after " + std::to_string(DemoDevices::kGoodChunks) +
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

// The number lies inside the configuration image and is written last.
bool BurnCheck::holdsPackage(const Flash& flash, const std::string& sn) const {
    std::vector<Flash::Range> expected;
    for (const SampleImage& image : package_.images()) {
        std::vector<std::uint8_t> bytes = image.bytes;
        if (snAddress() >= image.address && snAddress() - image.address < bytes.size())
            std::copy(sn.begin(), sn.end(), bytes.begin() + (snAddress() - image.address));
        if (!flash.holds(image.address, bytes))
            return false;
        expected.push_back({image.address, bytes.size()});
    }
    std::sort(expected.begin(), expected.end(),
              [](const auto& a, const auto& b) { return a.address < b.address; });
    return flash.writtenRanges() == expected;
}

// Just the rows of burned devices are marked in the file on the disk, and every other number is
// free: none is lost, those of failed devices are back.
bool BurnCheck::checkSerialNumbers() {
    std::string expected = sampleSerialNumbers(numbers_);
    for (const std::string& sn : burned_) {
        const std::size_t row = expected.find(sn + ",0\r\n");
        if (row == std::string::npos)
            return report_.fail("unknown serial number " + sn);
        expected[row + sn.size() + 1] = '1';
    }
    if (readWhole(csvPath_) != expected)
        return report_.fail("the serial number file does not tell what was burned");

    const std::set<std::string> free = freeNumbers();
    report_.line("serial numbers: %u in the file, %zu burned and marked, %zu free", numbers_,
                 burned_.size(), free.size());
    for (const std::string& sn : burned_) {
        if (free.contains(sn))
            return report_.fail("burned and still free: " + sn);
    }
    return burned_.size() + free.size() == numbers_ || report_.fail("serial numbers are lost");
}

bool BurnCheck::checkBurnCount() {
    const unsigned count = worker_.burnCount();
    report_.line("burn count in the window: %u", count);
    return count == burned_.size() || report_.fail("the burn count is wrong");
}

}  // namespace simulator
