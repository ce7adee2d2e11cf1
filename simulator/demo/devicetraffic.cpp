#include "simulator/demo/devicetraffic.h"

#include <algorithm>
#include <string>

namespace simulator {
namespace {

constexpr int kLimitMs = 60'000;
constexpr std::uint32_t kMidBurnChunks = 150;  // of 750 or so
constexpr std::size_t kHalf = DemoDevices::kTogether / 2;

TileView tileOf(const std::vector<TileView>& tiles, const DemoDevice& device) {
    const QString name = QString::fromStdString(device.deviceId);
    const auto tile = std::find_if(tiles.begin(), tiles.end(),
                                   [&](const TileView& view) { return view.name == name; });
    return tile != tiles.end() ? *tile : TileView{};
}

bool isBurned(const TileView& tile) {
    return tile.status.startsWith(QStringLiteral("烧录成功！"));
}

bool isWriting(const TileView& tile) {
    return tile.status.startsWith(QStringLiteral("正在写入"));
}

bool isRemoved(const TileView& tile) {
    return tile.status == QStringLiteral("设备已移除！") && tile.percent == 0 && !tile.active;
}

// Whether nothing more will happen to the device. A tile cannot tell that for a failed command: it
// keeps the last progress.
bool isSettled(const DemoDevice& device, const TileView& tile) {
    switch (device.fate) {
        case DemoDevice::Fate::kFailsInRom:
            return tile.status.startsWith(QStringLiteral("error="));
        case DemoDevice::Fate::kFailsInFlash:
            return device.device->count(FaultPoint::Chunk) > DemoDevices::kGoodChunks;
        default:
            return isBurned(tile);
    }
}

}  // namespace

DeviceTraffic::DeviceTraffic(Report& report, QWidget& window, const DemoOperator& worker,
                             DemoDevices& devices, std::chrono::milliseconds pause)
    : report_(report),
      window_(window),
      worker_(worker),
      devices_(devices),
      pause_(pause),
      eyes_(window) {}

void DeviceTraffic::firstHalfComes() {
    for (std::size_t i = 0; i < kHalf; ++i)
        devices_.plug(devices_.all()[i]);
}

bool DeviceTraffic::secondHalfComes() {
    for (std::size_t i = kHalf; i < DemoDevices::kTogether; ++i) {
        if (!pause())
            return false;
        devices_.plug(devices_.all()[i]);
    }
    return waitFor("sixteen devices", [](const Tiles& tiles) {
        return tiles.size() == DemoDevices::kTogether &&
               std::all_of(tiles.begin(), tiles.end(),
                           [](const TileView& tile) { return tile.active; });
    });
}

bool DeviceTraffic::oneTooManyComes() {
    devices_.plug(devices_.late());
    return pause();
}

bool DeviceTraffic::waitForMidBurn() {
    const DemoDevice& device = devices_.toUnplug();
    return waitForTile("the burn of the device to unplug", device, [&](const TileView& tile) {
        return isWriting(tile) && device.device->count(FaultPoint::Chunk) >= kMidBurnChunks;
    });
}

bool DeviceTraffic::oneLeavesAndReturns() {
    DemoDevice& device = devices_.toUnplug();
    devices_.unplug(device);
    if (!waitForTile("its removal", device, isRemoved) || !pause())
        return false;
    devices_.plug(device);
    return true;
}

bool DeviceTraffic::waitForTheEnd() {
    const bool ended = waitFor("the end of all burns", [this](const Tiles& tiles) {
        return std::all_of(
            devices_.all().begin(), devices_.all().end() - 1,
            [&](const DemoDevice& device) { return isSettled(device, tileOf(tiles, device)); });
    });
    if (!ended)
        return false;
    if (devices_.late().device->traffic() != 0)
        return report_.fail("the device without a place has been touched");
    noteOutcomes();
    return true;
}

bool DeviceTraffic::lateOneTakesAPlace() {
    for (DemoDevice* const failed : {&devices_.failingInRom(), &devices_.failingInFlash()}) {
        if (!pause())
            return false;
        devices_.unplug(*failed);
        if (!waitForTile("the removal of a failed device", *failed, isRemoved))
            return false;
    }
    DemoDevice& late = devices_.late();
    devices_.unplug(late);
    late.port = devices_.failingInFlash().port;
    devices_.plug(late);
    if (!waitForTile("the late device", late, isBurned))
        return false;
    noteOutcomes();
    return true;
}

bool DeviceTraffic::waitFor(const char* what, const std::function<bool(const Tiles&)>& condition) {
    bool holds = false;
    WindowOperator::waitFor(
        [&] {
            holds = condition(eyes_.tiles());
            return holds || isEndedByOperator();
        },
        kLimitMs);
    if (!holds && !isEndedByOperator())
        report_.fail(std::string("waited in vain for ") + what);
    return holds;
}

bool DeviceTraffic::waitForTile(const char* what, const DemoDevice& device,
                                const std::function<bool(const TileView&)>& condition) {
    return waitFor(what, [&](const Tiles& tiles) { return condition(tileOf(tiles, device)); });
}

// For the eye of whoever watches. False if that one has ended the demo.
bool DeviceTraffic::pause() {
    if (pause_ > pause_.zero())
        WindowOperator::waitFor([this] { return isEndedByOperator(); },
                                static_cast<int>(pause_.count()));
    return !isEndedByOperator();
}

// What the tiles of the devices that have come to their end show.
void DeviceTraffic::noteOutcomes() {
    const Tiles tiles = eyes_.tiles();
    for (DemoDevice& device : devices_.all()) {
        const TileView tile = tileOf(tiles, device);
        if (device.outcome.name.isEmpty() && isSettled(device, tile))
            device.outcome = tile;
    }
}

}  // namespace simulator
