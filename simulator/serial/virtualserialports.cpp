#include "simulator/serial/virtualserialports.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace simulator {

using platform::PortEvent;
using platform::SerialPortEntry;

class VirtualSerialPorts::Events final : public platform::PortEvents {
  public:
    explicit Events(VirtualSerialPorts& ports) : ports_(ports) {}
    ~Events() override {
        const std::lock_guard guard(ports_.lock_);
        ports_.watched_ = false;
    }

    int descriptor() const override { return ports_.pending_; }

    std::optional<PortEvent> next() override {
        const std::lock_guard guard(ports_.lock_);
        if (ports_.events_.empty())
            return std::nullopt;
        PortEvent event = std::move(ports_.events_.front());
        ports_.events_.pop_front();
        eventfd_t taken = 0;
        ::eventfd_read(ports_.pending_, &taken);
        return event;
    }

  private:
    VirtualSerialPorts& ports_;
};

VirtualSerialPorts::VirtualSerialPorts()
    : pending_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) {
    if (pending_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    platform::substituteSerialPorts(this);
}

VirtualSerialPorts::~VirtualSerialPorts() {
    platform::substituteSerialPorts(nullptr);
    ::close(pending_);
}

void VirtualSerialPorts::arrive(const std::filesystem::path& path, const std::string& model,
                                bool isUsb) {
    const std::string name = path.filename().string();
    const std::lock_guard guard(lock_);
    present_.push_back({name, model, isUsb});
    paths_[name] = path.string();
    report({PortEvent::Kind::kArrived, name});
}

void VirtualSerialPorts::leave(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    const std::lock_guard guard(lock_);
    present_.erase(std::remove_if(present_.begin(), present_.end(),
                                  [&](const SerialPortEntry& entry) { return entry.name == name; }),
                   present_.end());
    report({PortEvent::Kind::kRemoved, name});
}

void VirtualSerialPorts::fail(const std::string& reason) {
    const std::lock_guard guard(lock_);
    failure_ = reason;
}

std::vector<SerialPortEntry> VirtualSerialPorts::list() {
    const std::lock_guard guard(lock_);
    if (!failure_.empty())
        throw platform::SerialPortsError(failure_);
    return present_;
}

std::unique_ptr<platform::PortEvents> VirtualSerialPorts::watch() {
    const std::lock_guard guard(lock_);
    if (!failure_.empty() || watched_)
        return nullptr;
    watched_ = true;
    events_.clear();
    eventfd_t stale = 0;
    while (::eventfd_read(pending_, &stale) == 0) {
    }
    return std::make_unique<Events>(*this);
}

std::string VirtualSerialPorts::pathOf(std::string_view name) const {
    const std::lock_guard guard(lock_);
    const auto path = paths_.find(name);
    return path != paths_.end() ? path->second : "";
}

void VirtualSerialPorts::report(PortEvent event) {
    if (!watched_)
        return;
    events_.push_back(std::move(event));
    ::eventfd_write(pending_, 1);
}

}  // namespace simulator
