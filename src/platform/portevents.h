// Tells of serial ports that come and go, for an event loop that watches a descriptor.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace platform {

struct PortEvent {
    enum class Kind { kArrived, kRemoved };
    Kind kind;
    std::string name;  // as in "ttyUSB0"
};

// Reports each port that arrives after the start and each one that leaves, in order. Used by one
// thread.
class PortEvents {
  public:
    PortEvents() = default;
    virtual ~PortEvents() = default;
    PortEvents(const PortEvents&) = delete;
    PortEvents& operator=(const PortEvents&) = delete;

    // Readable while there may be an event; belongs to this object.
    virtual int descriptor() const = 0;

    // Does not wait: nothing if there is no event left.
    virtual std::optional<PortEvent> next() = 0;
};

// The events of this machine's ports. An arrival is told when the port's access rights are set.
// Null if the system gives no events.
std::unique_ptr<PortEvents> watchSystemPorts();

}  // namespace platform
