// The sixteen serial devices of the demo: the ports at which they sit, and what is to become of
// each.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "demo/audience.h"
#include "demo/operator/windowoperator.h"
#include "demo/report.h"
#include "simulator/serial/virtualserialdevice.h"
#include "simulator/serial/virtualserialports.h"

namespace simulator {

struct SerialDevice {
    enum class Fate { kBurned, kRefusesDigest };

    std::unique_ptr<VirtualSerialDevice> device;
    Fate fate = Fate::kBurned;
    TileView outcome = {};  // what its tile showed in the end
};

// Must be made before the window and outlive it. One of the devices answers with noise, and one
// starts late in its ROM loader; both get burned all the same.
class SerialDevices {
  public:
    static constexpr std::size_t kCount = 16;

    // The ports lie in a new directory of that path.
    SerialDevices(Report& report, Audience audience, const std::filesystem::path& directory);

    std::vector<SerialDevice>& all() { return devices_; }
    SerialDevice& toUnplug();  // in mid-burn

    void plug(SerialDevice& device);
    void unplug(SerialDevice& device);
    // Takes every device that is plugged in out and puts it in again: they are all in their ROM
    // loaders then. To be used while the ports do not matter to the window; not reported.
    void plugAnew();

  private:
    Report& report_;
    VirtualSerialPorts ports_;
    std::vector<SerialDevice> devices_;
};

}  // namespace simulator
