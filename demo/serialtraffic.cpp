#include "demo/serialtraffic.h"

#include <algorithm>

namespace simulator {
namespace {

constexpr std::uint32_t kMidBurnBlocks = 150;  // of 750 or so
constexpr std::size_t kHalf = SerialDevices::kCount / 2;

using Tiles = TileWatch::Tiles;

bool hasFailed(const TileView& tile) {
    return tile.status.startsWith(QStringLiteral("出错")) && !tile.active;
}

// The word of the removal can be overtaken by that of the burn that failed of it.
bool isRemoved(const TileView& tile) {
    return (tile.status == QStringLiteral("设备已移除！") && !tile.active) || hasFailed(tile);
}

// Whether nothing more will happen to the device.
bool isSettled(const SerialDevice& device, const TileView& tile) {
    return device.fate == SerialDevice::Fate::kRefusesDigest ? hasFailed(tile)
                                                             : TileWatch::isBurned(tile);
}

}  // namespace

void SerialTraffic::firstHalfComes() {
    for (std::size_t i = 0; i < kHalf; ++i)
        devices_.plug(devices_.all()[i]);
}

bool SerialTraffic::secondHalfComes() {
    for (std::size_t i = kHalf; i < SerialDevices::kCount; ++i) {
        if (!watch_.pause())
            return false;
        devices_.plug(devices_.all()[i]);
    }
    return watch_.waitFor("sixteen ports", [this](const Tiles& tiles) {
        return std::all_of(devices_.all().begin(), devices_.all().end(),
                           [&](const SerialDevice& device) {
                               return TileWatch::find(tiles, device.device->portName()).active;
                           });
    });
}

bool SerialTraffic::waitForMidBurn() {
    const VirtualSerialDevice& device = *devices_.toUnplug().device;
    return watch_.waitForTile(
        "the burn of the serial device to unplug", device.portName(), [&](const TileView& tile) {
            return TileWatch::isWriting(tile) &&
                   device.count(SerialFaultPoint::kFlashData) >= kMidBurnBlocks;
        });
}

bool SerialTraffic::oneLeavesAndReturns() {
    SerialDevice& device = devices_.toUnplug();
    devices_.unplug(device);
    if (!watch_.waitForTile("its removal", device.device->portName(), isRemoved) || !watch_.pause())
        return false;
    devices_.plug(device);
    return true;
}

bool SerialTraffic::waitForTheEnd() {
    return watch_.waitFor("the end of all serial burns", [this](const Tiles& tiles) {
        bool settled = true;
        for (SerialDevice& device : devices_.all()) {
            device.outcome = TileWatch::find(tiles, device.device->portName());
            settled = settled && isSettled(device, device.outcome);
        }
        return settled;
    });
}

}  // namespace simulator
