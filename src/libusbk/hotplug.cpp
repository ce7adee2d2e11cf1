#include "libusbk/hotplug.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "libusbk/lasterror.h"

namespace libusbk {
namespace {

// How often it is looked whether a device may be opened by now. Rights change in many ways, not
// all of which the system tells.
constexpr std::chrono::milliseconds kLookAgain{100};
// If the node says that it may be opened and it still may not, something else forbids it.
constexpr int kMaximumRenewals = 20;

bool mayBeOpened(const DeviceEntry& entry) {
    return ::access(entry.devicePath, R_OK | W_OK) == 0;
}

}  // namespace

HotPlug::HotPlug(libusb_context* context, KernelDrivers& kernelDrivers)
    : context_(context), kernelDrivers_(kernelDrivers) {
    const int result = libusb_hotplug_register_callback(
        context, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
        LIBUSB_HOTPLUG_ENUMERATE, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
        LIBUSB_HOTPLUG_MATCH_ANY, &HotPlug::onLibusbEvent, this, &registration_);
    if (result != 0)
        throw std::system_error(std::make_error_code(std::errc::not_supported),
                                libusb_error_name(result));
    thread_ = std::thread(&HotPlug::run, this);
}

HotPlug::~HotPlug() {
    libusb_hotplug_deregister_callback(context_, registration_);
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    posted_.notify_one();
    thread_.join();
}

void HotPlug::addMonitor(const MonitorParameters& parameters, Monitor** monitor) {
    const std::lock_guard guard(mutex_);
    // Set under the lock: the callback may look for it.
    *monitor = &monitors_.emplace_back(Monitor{parameters, false, false, {}});
    // In its place among the arrivals, so that it hears of each device exactly once.
    events_.push_back({Event::Kind::kMonitorAdded, nullptr, *monitor});
    posted_.notify_one();
}

bool HotPlug::removeMonitor(Monitor* monitor) {
    Lock lock(mutex_);
    if (calling_ == monitor && std::this_thread::get_id() == thread_.get_id())
        return fail(kInvalidParameter);  // it would wait for its own end
    const auto place = std::find_if(monitors_.begin(), monitors_.end(),
                                    [&](const Monitor& other) { return &other == monitor; });
    if (place == monitors_.end())
        return fail(kInvalidParameter);
    monitor->closing = true;
    returned_.wait(lock, [&] { return calling_ != monitor; });
    std::erase_if(events_, [&](const Event& event) { return event.monitor == monitor; });
    monitors_.erase(place);
    return true;
}

int LIBUSB_CALL HotPlug::onLibusbEvent(libusb_context*, libusb_device* device,
                                       libusb_hotplug_event kind, void* self) noexcept {
    static_cast<HotPlug*>(self)->post(
        {kind == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED ? Event::Kind::kArrived : Event::Kind::kLeft,
         referTo(device), nullptr});
    return 0;  // stay registered
}

void HotPlug::post(Event event) {
    {
        const std::lock_guard guard(mutex_);
        events_.push_back(std::move(event));
    }
    posted_.notify_one();
}

void HotPlug::run() noexcept {
    Lock lock(mutex_);
    for (;;) {
        const auto wakes = [&] { return stopping_ || !events_.empty(); };
        if (awaitsRights())
            posted_.wait_for(lock, kLookAgain, wakes);
        else
            posted_.wait(lock, wakes);
        if (stopping_)
            return;
        if (!events_.empty()) {
            Event event = std::move(events_.front());
            events_.pop_front();
            handle(lock, std::move(event));
        } else {
            renewThoseWithRights(lock);
        }
    }
}

void HotPlug::openingDenied(libusb_device* device) {
    if (std::this_thread::get_id() != thread_.get_id())
        return;
    for (Connected& connected : connected_) {
        if (connected.device.get() == device)
            connected.denied = true;
    }
}

bool HotPlug::awaitsRights() const {
    return std::any_of(connected_.begin(), connected_.end(), [](const Connected& connected) {
        return connected.denied && connected.renewals < kMaximumRenewals;
    });
}

void HotPlug::renewThoseWithRights(Lock& lock) {
    for (Connected& connected : connected_) {
        if (!connected.denied || connected.renewals >= kMaximumRenewals ||
            !mayBeOpened(connected.entry))
            continue;
        connected.denied = false;
        ++connected.renewals;
        for (Monitor& monitor : monitors_) {
            reportRemoval(lock, monitor, connected.device.get());
            if (monitor.started)
                reportArrival(lock, monitor, connected);
        }
    }
}

void HotPlug::handle(Lock& lock, Event event) {
    switch (event.kind) {
        case Event::Kind::kArrived:
            arrived(lock, std::move(event.device));
            break;
        case Event::Kind::kLeft:
            left(lock, event.device.get());
            break;
        case Event::Kind::kMonitorAdded:
            startMonitor(lock, *event.monitor);
            break;
    }
}

void HotPlug::arrived(Lock& lock, DeviceReference device) {
    // What arrives while the connected devices are being enumerated is told twice.
    for (const Connected& connected : connected_) {
        if (connected.device == device)
            return;
    }
    lock.unlock();
    const DeviceEntry entry = identify(device.get());
    lock.lock();
    // A port has one device: if the leaving of the one before has been lost, it is made up for.
    const auto before =
        std::find_if(connected_.begin(), connected_.end(), [&](const Connected& connected) {
            return shareAPort(connected.device.get(), device.get());
        });
    if (before != connected_.end())
        left(lock, before->device.get());
    connected_.push_back({std::move(device), entry});
    for (Monitor& monitor : monitors_) {
        if (monitor.started)
            reportArrival(lock, monitor, connected_.back());
    }
}

void HotPlug::left(Lock& lock, libusb_device* device) {
    const auto place =
        std::find_if(connected_.begin(), connected_.end(),
                     [&](const Connected& connected) { return connected.device.get() == device; });
    if (place == connected_.end())
        return;
    const Connected gone = std::move(*place);
    connected_.erase(place);
    kernelDrivers_.forget(device);
    for (Monitor& monitor : monitors_)
        reportRemoval(lock, monitor, device);
}

void HotPlug::startMonitor(Lock& lock, Monitor& monitor) {
    monitor.started = true;
    if ((monitor.parameters.flags & kReportConnected) == 0)
        return;
    for (const Connected& connected : connected_)
        reportArrival(lock, monitor, connected);
}

void HotPlug::reportArrival(Lock& lock, Monitor& monitor, const Connected& connected) {
    if (monitor.closing || !matches(monitor.parameters.pattern, connected.entry))
        return;
    Monitor::Reported& reported =
        monitor.reported.emplace_back(Monitor::Reported{connected.device.get(), connected.entry});
    callOut(lock, monitor, [&] {
        describe(reported.device, reported.entry);
        const DeviceEntry entry = reported.entry;
        monitor.parameters.callback(&monitor, &entry, kArrival, monitor.parameters.user);
    });
}

void HotPlug::reportRemoval(Lock& lock, Monitor& monitor, libusb_device* device) {
    const auto place =
        std::find_if(monitor.reported.begin(), monitor.reported.end(),
                     [&](const Monitor::Reported& reported) { return reported.device == device; });
    if (monitor.closing || place == monitor.reported.end())
        return;
    const DeviceEntry entry = place->entry;
    monitor.reported.erase(place);
    callOut(lock, monitor, [&] {
        monitor.parameters.callback(&monitor, &entry, kRemoval, monitor.parameters.user);
    });
}

template <typename Call>
void HotPlug::callOut(Lock& lock, Monitor& monitor, Call call) {
    calling_ = &monitor;
    lock.unlock();
    call();
    lock.lock();
    calling_ = nullptr;
    returned_.notify_all();
}

}  // namespace libusbk
