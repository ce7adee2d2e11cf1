#include "demo/usbtraffic.h"

#include <algorithm>
#include <string>

namespace simulator {
namespace {

constexpr std::uint32_t kMidBurnChunks = 150;  // of 750 or so
constexpr std::size_t kHalf = UsbDevices::kTogether / 2;

using Tiles = TileWatch::Tiles;

bool isRemoved(const TileView& tile) {
    return tile.status == QStringLiteral("设备已移除！") && tile.percent == 0 && !tile.active;
}

// Whether nothing more will happen to the device. A tile cannot tell that for a failed command: it
// keeps the last progress.
bool isSettled(const UsbDevice& device, const TileView& tile) {
    switch (device.fate) {
        case UsbDevice::Fate::kFailsInRom:
            return tile.status.startsWith(QStringLiteral("error="));
        case UsbDevice::Fate::kFailsInFlash:
            return device.device->count(UsbFaultPoint::kChunk) > UsbDevices::kGoodChunks;
        default:
            return TileWatch::isBurned(tile);
    }
}

}  // namespace

void UsbTraffic::firstHalfComes() {
    for (std::size_t i = 0; i < kHalf; ++i)
        devices_.plug(devices_.all()[i]);
}

bool UsbTraffic::secondHalfComes() {
    for (std::size_t i = kHalf; i < UsbDevices::kTogether; ++i) {
        if (!watch_.pause())
            return false;
        devices_.plug(devices_.all()[i]);
    }
    return watch_.waitFor("sixteen devices", [](const Tiles& tiles) {
        return tiles.size() == UsbDevices::kTogether &&
               std::all_of(tiles.begin(), tiles.end(),
                           [](const TileView& tile) { return tile.active; });
    });
}

bool UsbTraffic::oneTooManyComes() {
    devices_.plug(devices_.late());
    return watch_.pause();
}

bool UsbTraffic::waitForMidBurn() {
    const UsbDevice& device = devices_.toUnplug();
    return watch_.waitForTile(
        "the burn of the device to unplug", device.deviceId, [&](const TileView& tile) {
            return TileWatch::isWriting(tile) &&
                   device.device->count(UsbFaultPoint::kChunk) >= kMidBurnChunks;
        });
}

bool UsbTraffic::oneLeavesAndReturns() {
    UsbDevice& device = devices_.toUnplug();
    devices_.unplug(device);
    if (!watch_.waitForTile("its removal", device.deviceId, isRemoved) || !watch_.pause())
        return false;
    devices_.plug(device);
    return true;
}

bool UsbTraffic::waitForTheEnd() {
    const bool ended = watch_.waitFor("the end of all burns", [this](const Tiles& tiles) {
        return std::all_of(devices_.all().begin(), devices_.all().end() - 1,
                           [&](const UsbDevice& device) {
                               return isSettled(device, TileWatch::find(tiles, device.deviceId));
                           });
    });
    if (!ended)
        return false;
    if (devices_.late().device->traffic() != 0)
        return report_.fail("the device without a place has been touched");
    noteOutcomes();
    return true;
}

bool UsbTraffic::lateOneTakesAPlace() {
    for (UsbDevice* const failed : {&devices_.failingInRom(), &devices_.failingInFlash()}) {
        if (!watch_.pause())
            return false;
        devices_.unplug(*failed);
        if (!watch_.waitForTile("the removal of a failed device", failed->deviceId, isRemoved))
            return false;
    }
    UsbDevice& late = devices_.late();
    devices_.unplug(late);
    late.port = devices_.failingInFlash().port;
    devices_.plug(late);
    if (!watch_.waitForTile("the late device", late.deviceId, TileWatch::isBurned))
        return false;
    noteOutcomes();
    return true;
}

// What the tiles of the devices that have come to their end show.
void UsbTraffic::noteOutcomes() {
    const Tiles tiles = watch_.tiles();
    for (UsbDevice& device : devices_.all()) {
        const TileView tile = TileWatch::find(tiles, device.deviceId);
        if (device.outcome.name.isEmpty() && isSettled(device, tile))
            device.outcome = tile;
    }
}

}  // namespace simulator
