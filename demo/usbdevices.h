// The seventeen USB devices of the demo: where they are plugged in, and what is to become of each.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "demo/audience.h"
#include "demo/operator/windowoperator.h"
#include "demo/report.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"

namespace simulator {

struct UsbDevice {
    // kComesLate: finds all sixteen places taken, and is burned at the port of another one later.
    enum class Fate { kBurned, kFailsInRom, kFailsInFlash, kComesLate };

    std::string port;
    std::string deviceId;
    Fate fate = Fate::kBurned;
    std::shared_ptr<VirtualUsbDevice> device;
    bool plugged = false;
    TileView outcome = {};  // what its tile showed in the end

    bool isToBeBurned() const { return fate == Fate::kBurned || fate == Fate::kComesLate; }
};

// Must be made before the window and outlive it.
class UsbDevices {
  public:
    static constexpr std::size_t kTogether = 16;
    // That the failing flash takes before it fails.
    static constexpr std::uint32_t kGoodChunks = 200;

    UsbDevices(Report& report, Audience audience);

    std::vector<UsbDevice>& all() { return devices_; }
    UsbDevice& toUnplug();  // in mid-burn
    UsbDevice& failingInRom();
    UsbDevice& failingInFlash();
    UsbDevice& late();

    void plug(UsbDevice& device);
    void unplug(UsbDevice& device);
    // Takes every device that is plugged in out and puts it in again: they are all in their ROM
    // loaders then. Not reported.
    void plugAnew();

    // What the host did wrong on the bus.
    std::vector<std::string> busErrors() const { return bus_.errors(); }

  private:
    Report& report_;
    VirtualUsbBus bus_;
    std::vector<UsbDevice> devices_;
};

}  // namespace simulator
