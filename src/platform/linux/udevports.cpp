#include "udevports.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "platform/serialports.h"

namespace platform {
namespace {

// The texts are those of every system, so that whoever reads a trace knows the step that failed.
[[noreturn]] void fail(const char* step, int error) {
    char text[96];
    std::snprintf(text, sizeof text, "%s failed. (err=%lx)", step,
                  static_cast<unsigned long>(error));
    throw SerialPortsError(text);
}

}  // namespace

bool udevRuns() {
    return ::access("/run/udev/control", F_OK) == 0;
}

std::string portName(udev_device* terminal) {
    constexpr std::string_view kNodes = "/dev/";
    const char* const node = udev_device_get_devnode(terminal);
    const std::string_view path = node != nullptr ? node : "";
    return std::string(
        path.substr(path.substr(0, kNodes.size()) == kNodes ? kNodes.size() : path.size()));
}

bool isPort(udev_device* terminal) {
    const std::string_view place = udev_device_get_syspath(terminal);
    if (place.find("/devices/virtual/") != std::string_view::npos)
        return false;
    // The 8250 driver keeps places for more UARTs than it finds; they are of type 0. What is no
    // UART has no type.
    const char* const type = udev_device_get_sysattr_value(terminal, "type");
    return type == nullptr || std::string_view(type) != "0";
}

std::vector<UdevDevice> presentPorts(udev* context) {
    const UdevEnumeration terminals(context != nullptr ? udev_enumerate_new(context) : nullptr);
    if (terminals == nullptr)
        fail("SetupDiGetClassDevs", errno);
    int result = udev_enumerate_add_match_subsystem(terminals.get(), kPortSubsystem);
    if (result >= 0)
        result = udev_enumerate_scan_devices(terminals.get());
    if (result < 0)
        fail("SetupDiEnumDeviceInterfaces", -result);
    std::vector<UdevDevice> ports;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(terminals.get())) {
        UdevDevice terminal(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        // One that has left meanwhile is not present; one that udev still works on arrives later.
        if (terminal != nullptr && isPort(terminal.get()) && !portName(terminal.get()).empty() &&
            (!udevRuns() || udev_device_get_is_initialized(terminal.get()) > 0))
            ports.push_back(std::move(terminal));
    }
    return ports;
}

}  // namespace platform
