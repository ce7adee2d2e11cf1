// What the list of serial ports and their events have in common: udev's objects and the judgement
// which of its terminals are ports.
#pragma once

#include <libudev.h>

#include <memory>
#include <string>
#include <vector>

namespace platform {

template <auto kUnref>
struct UdevUnref {
    template <typename Object>
    void operator()(Object* object) const {
        kUnref(object);
    }
};
using UdevContext = std::unique_ptr<udev, UdevUnref<udev_unref>>;
using UdevDevice = std::unique_ptr<udev_device, UdevUnref<udev_device_unref>>;
using UdevEnumeration = std::unique_ptr<udev_enumerate, UdevUnref<udev_enumerate_unref>>;
using UdevMonitor = std::unique_ptr<udev_monitor, UdevUnref<udev_monitor_unref>>;

constexpr char kPortSubsystem[] = "tty";

// Whether a udev handles this machine's devices, so that there is more to wait for than the kernel.
bool udevRuns();

// The name below /dev; empty if the terminal has no node there.
std::string portName(udev_device* terminal);

// Whether a terminal that is present has hardware behind it.
bool isPort(udev_device* terminal);

// All that are present and ready for use. Throws SerialPortsError.
std::vector<UdevDevice> presentPorts(udev* context);

}  // namespace platform
