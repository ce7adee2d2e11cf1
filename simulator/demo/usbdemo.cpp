#include "simulator/demo/usbdemo.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>

#include "storage/globalstorage.h"
#include "utils/text.h"
#include "vorlan/burn/burnadmin.h"

using namespace std::chrono_literals;

namespace simulator {
namespace {

using Phase = ConsoleBurner::Phase;
using Tiles = ConsoleBurner::Tiles;

constexpr std::size_t kDevices = 17;
constexpr std::size_t kUnpluggedOne = 4;  // in mid-burn, and plugged in again
constexpr std::size_t kRomFailure = 7;
constexpr std::size_t kFlashFailure = 10;
constexpr std::size_t kLateOne = 16;        // finds all sixteen places taken
constexpr std::uint32_t kGoodChunks = 200;  // that the flash failure takes before it fails
constexpr unsigned kSerialNumbers = 20;
constexpr const char* kPackageFile = "sample.vrk";
constexpr const char* kCsvFile = "serial-numbers.csv";
constexpr std::size_t kSnLength = 15;

const ConsoleBurner::Tile& tileOf(const Tiles& tiles, const std::string& deviceId) {
    const auto tile = std::find_if(tiles.begin(), tiles.end(), [&](const ConsoleBurner::Tile& t) {
        return t.deviceId == deviceId;
    });
    static const ConsoleBurner::Tile none;
    return tile != tiles.end() ? *tile : none;
}

bool isSettled(Phase phase) {
    return phase == Phase::kDone || phase == Phase::kFailed;
}

std::string nativeCurrentPath(const char* name) {
    return (std::filesystem::current_path() / name).string();
}

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

bool UsbDemo::run() {
    if (!prepare())
        return false;
    makeDevices();
    const auto start = std::chrono::steady_clock::now();
    const bool finished = burn();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    BurnAdmin::destroyInstance();
    const bool correct = check();
    report_.line("USB road: %.1f s", std::chrono::duration<double>(elapsed).count());
    return finished && correct;
}

bool UsbDemo::fail(const std::string& text) {
    report_.line("FAILED: %s", text.c_str());
    return false;
}

bool UsbDemo::prepare() {
    const std::string zip = nativeCurrentPath(kPackageFile);
    const std::string csv = nativeCurrentPath(kCsvFile);
    std::ofstream(csv, std::ios::binary) << sampleSerialNumbers(kSerialNumbers);
    if (!package_.writeZip(zip))
        return fail("the sample package cannot be written");
    firmware_.setFirmwarePath(text::widen(zip));
    if (!firmware_.unpack(L".\\temp_image\\"))
        return fail("the sample package is refused");
    if (!GlobalStorage::getInstance().getSnFile().load(text::widen(csv)))
        return fail("the serial number file is refused");
    return true;
}

void UsbDemo::makeDevices() {
    for (std::size_t i = 0; i < kDevices; ++i) {
        UsbDeviceOptions options;
        options.romStartUp = 50ms;
        options.handOver = 50ms;
        options.eraseTime = 40ms;
        options.chunkTime = 2500us;
        options.resultTime = 150ms;
        Device device{.port = "0000:00:14.0-2." + std::to_string(i + 1),
                      .deviceId = {},
                      .fate = Fate::kBurned,
                      .device = std::make_shared<VirtualUsbDevice>(options)};
        if (i == kRomFailure) {
            device.fate = Fate::kFailsInRom;
            device.device->addFault(
                {.where = FaultPoint::MemData, .what = Fault::romStatus(0xF1), .skip = 5});
        } else if (i == kFlashFailure) {
            device.fate = Fate::kFailsInFlash;
            device.device->addFault({.where = FaultPoint::Chunk,
                                     .what = Fault::error("flash program failed"),
                                     .skip = kGoodChunks});
        } else if (i == kLateOne) {
            device.fate = Fate::kComesLate;
        }
        devices_.push_back(std::move(device));
    }
}

void UsbDemo::plug(Device& device) {
    device.deviceId = bus_.plug(device.port, device.device);
    report_.line("plugged in   %s", device.port.c_str());
}

void UsbDemo::unplug(const Device& device) {
    bus_.unplug(device.port);
    report_.line("unplugged    %s", device.port.c_str());
}

bool UsbDemo::waitFor(const char* what, const std::function<bool(const Tiles&)>& condition) {
    const bool came =
        burner_.waitFor(condition, 60s, [&](const Tiles& tiles) { report_.showTiles(tiles); });
    return came || fail(std::string("waited in vain for ") + what);
}

bool UsbDemo::burn() {
    // Some devices are there before the operator starts, the others come after.
    for (std::size_t i = 0; i < kLateOne / 2; ++i)
        plug(devices_[i]);
    BurnAdmin* const admin = BurnAdmin::getInstance();
    admin->setRomWait(100);
    admin->setBurnerPath(text::narrow(firmware_.getBurnerPath()));
    admin->startMonitor(&burner_);
    for (std::size_t i = kLateOne / 2; i < kLateOne; ++i)
        plug(devices_[i]);
    if (!waitFor("sixteen devices", [&](const Tiles& tiles) {
            return std::none_of(tiles.begin(), tiles.end(),
                                [](const auto& tile) { return tile.phase == Phase::kFree; });
        }))
        return false;
    plug(devices_[kLateOne]);

    Device& unplugged = devices_[kUnpluggedOne];
    const auto phaseIs = [&](const Device& device, Phase phase) {
        return [&device, phase](const Tiles& tiles) {
            return tileOf(tiles, device.deviceId).phase == phase;
        };
    };
    if (!waitFor("the burn of the device to unplug", [&](const Tiles& tiles) {
            const auto& tile = tileOf(tiles, unplugged.deviceId);
            return tile.phase == Phase::kBurning && tile.percent >= 10 && tile.percent < 100;
        }))
        return false;
    unplug(unplugged);
    if (!waitFor("its removal", phaseIs(unplugged, Phase::kRemoved)))
        return false;
    plug(unplugged);
    if (!waitFor("the end of all burns", [&](const Tiles& tiles) {
            return std::all_of(tiles.begin(), tiles.end(),
                               [](const auto& tile) { return isSettled(tile.phase); });
        }))
        return false;
    if (devices_[kLateOne].device->traffic() != 0)
        return fail("the device without a place has been touched");

    // The failed devices leave, which frees their numbers, and the one that found no place is
    // plugged into the port of one of them.
    noteOutcomes();
    for (const std::size_t i : {kRomFailure, kFlashFailure}) {
        unplug(devices_[i]);
        if (!waitFor("the removal of a failed device", phaseIs(devices_[i], Phase::kRemoved)))
            return false;
    }
    Device& late = devices_[kLateOne];
    unplug(late);
    late.port = devices_[kFlashFailure].port;
    plug(late);
    if (!waitFor("the late device", phaseIs(late, Phase::kDone)))
        return false;
    noteOutcomes();
    return true;
}

// What the tiles of the devices that are plugged in read.
void UsbDemo::noteOutcomes() {
    const Tiles tiles = burner_.tiles();
    for (Device& device : devices_) {
        const ConsoleBurner::Tile& tile = tileOf(tiles, device.deviceId);
        if (isSettled(tile.phase) && device.outcome.empty())
            device.outcome = tile.status;
    }
}

bool UsbDemo::check() {
    bool correct = true;
    std::set<std::string> burned;
    for (std::size_t i = 0; i < devices_.size(); ++i)
        correct = checkDevice(i + 1, devices_[i], burned) && correct;
    correct = checkSerialNumbers(burned) && correct;
    for (const std::string& error : bus_.errors())
        correct = fail("USB bus: " + error);
    return correct;
}

bool UsbDemo::checkDevice(std::size_t number, const Device& device, std::set<std::string>& burned) {
    const bool shouldBeBurned = device.fate == Fate::kBurned || device.fate == Fate::kComesLate;
    std::string trouble =
        shouldBeBurned ? troubleWithBurned(device, burned) : troubleWithFailed(device);
    for (const std::string& error : device.device->errors())
        trouble += "; " + error;

    const char* const proof =
        shouldBeBurned ? "flash identical to the package" : "failed where it should";
    report_.line("device %2zu  %-18s %s  %s", number, device.port.c_str(), device.outcome.c_str(),
                 trouble.empty() ? proof : ("WRONG: " + trouble).c_str());
    return trouble.empty();
}

// What is wrong with a device that must hold the package and a number of its own; empty if nothing.
std::string UsbDemo::troubleWithBurned(const Device& device, std::set<std::string>& burned) const {
    const Flash& flash = device.device->flash();
    const std::string sn = serialNumberIn(flash);
    if (device.outcome != "烧录成功！SN=" + sn)
        return "tile and flash disagree on the serial number";
    if (!burned.insert(sn).second)
        return "serial number given twice";
    if (!holdsPackage(flash, sn))
        return "flash differs from the package";
    if (device.device->downloadedBurner() != package_.burner())
        return "burner image differs from the package";
    return {};
}

// What is wrong with a device that must have failed just where it was told to; empty if nothing.
std::string UsbDemo::troubleWithFailed(const Device& device) const {
    const Flash& flash = device.device->flash();
    if (device.fate == Fate::kFailsInRom) {
        if (device.outcome != "error=0xf1, des=Return Fatal Error! (retries = 0)")
            return "should have failed in its ROM loader";
        return flash.writtenRanges().empty() ? "" : "flash written before the burner ran";
    }
    // The first image whole, and of the second all chunks but the refused one.
    std::vector<Flash::Range> expected;
    std::uint32_t chunks = kGoodChunks;
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
        return "should have failed in flash after " + std::to_string(kGoodChunks) + " chunks";
    const std::string lastImage = package_.images()[expected.size() - 1].name;
    return device.outcome.starts_with("正在写入 .\\temp_image\\" + lastImage)
               ? ""
               : "the tile should show the last progress";
}

std::string UsbDemo::serialNumberIn(const Flash& flash) const {
    const auto bytes = flash.read(GlobalStorage::getInstance().getSnBurnAddr(), kSnLength);
    return std::string(bytes.begin(), bytes.end());
}

// The number lies inside the configuration image and is written last.
bool UsbDemo::holdsPackage(const Flash& flash, const std::string& sn) const {
    const std::uint32_t snAddress = GlobalStorage::getInstance().getSnBurnAddr();
    std::vector<Flash::Range> expected;
    for (const SampleImage& image : package_.images()) {
        std::vector<std::uint8_t> bytes = image.bytes;
        if (snAddress >= image.address && snAddress - image.address < bytes.size())
            std::copy(sn.begin(), sn.end(), bytes.begin() + (snAddress - image.address));
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
bool UsbDemo::checkSerialNumbers(const std::set<std::string>& burned) {
    std::string expected = sampleSerialNumbers(kSerialNumbers);
    for (const std::string& sn : burned) {
        const std::size_t row = expected.find(sn + ",0\r\n");
        if (row == std::string::npos)
            return fail("unknown serial number " + sn);
        expected[row + sn.size() + 1] = '1';
    }
    if (readWhole(nativeCurrentPath(kCsvFile)) != expected)
        return fail("the serial number file does not tell what was burned");

    std::set<std::string> free;
    SerialNumFile& pool = GlobalStorage::getInstance().getSnFile();
    while (const SerialNumFile::SnRecord* const record = pool.takeNext())
        free.insert(record->sn);
    report_.line("serial numbers: %u in the file, %zu burned and marked, %zu free", kSerialNumbers,
                 burned.size(), free.size());
    for (const std::string& sn : burned) {
        if (free.contains(sn))
            return fail("burned and still free: " + sn);
    }
    return burned.size() + free.size() == kSerialNumbers || fail("serial numbers are lost");
}

}  // namespace simulator
