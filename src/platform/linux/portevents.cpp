#include "platform/portevents.h"

#include <set>
#include <string_view>
#include <utility>

#include "platform/serialports.h"
#include "udevports.h"

namespace platform {
namespace {

constexpr int kBufferSize = 1 << 20;  // for what comes while the event loop is busy

// The kernel's own events are for machines on which no udev handles them: they come before a port
// has its access rights.
const char* eventSource() {
    return udevRuns() ? "udev" : "kernel";
}

class UdevPortEvents final : public PortEvents {
  public:
    // `present`: the ports that are not to be reported as arrived.
    UdevPortEvents(UdevContext context, UdevMonitor monitor, std::set<std::string> present)
        : context_(std::move(context)),
          monitor_(std::move(monitor)),
          present_(std::move(present)) {}

    int descriptor() const override { return udev_monitor_get_fd(monitor_.get()); }

    std::optional<PortEvent> next() override {
        while (const UdevDevice terminal{udev_monitor_receive_device(monitor_.get())}) {
            const char* const text = udev_device_get_action(terminal.get());
            const std::string_view action = text != nullptr ? text : "";
            std::string name = portName(terminal.get());
            // A port that is there already can be announced again, as when rules are reloaded.
            if (action == "add" && !name.empty() && isPort(terminal.get()) &&
                present_.insert(name).second)
                return PortEvent{PortEvent::Kind::kArrived, std::move(name)};
            // What has left can no longer be looked at.
            if (action == "remove" && present_.erase(name) != 0)
                return PortEvent{PortEvent::Kind::kRemoved, std::move(name)};
        }
        return std::nullopt;
    }

  private:
    UdevContext context_;
    UdevMonitor monitor_;
    std::set<std::string> present_;
};

}  // namespace

std::unique_ptr<PortEvents> watchSystemPorts() {
    UdevContext context(udev_new());
    if (context == nullptr)
        return nullptr;
    UdevMonitor monitor(udev_monitor_new_from_netlink(context.get(), eventSource()));
    if (monitor == nullptr ||
        udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), kPortSubsystem, nullptr) <
            0 ||
        udev_monitor_enable_receiving(monitor.get()) < 0)
        return nullptr;
    // A smaller buffer does as well, as long as the event loop runs.
    udev_monitor_set_receive_buffer_size(monitor.get(), kBufferSize);
    std::set<std::string> present;
    try {
        for (const UdevDevice& port : presentPorts(context.get()))
            present.insert(portName(port.get()));
    } catch (const SerialPortsError&) {
        return nullptr;
    }
    return std::make_unique<UdevPortEvents>(std::move(context), std::move(monitor),
                                            std::move(present));
}

}  // namespace platform
