// Hot-plug: one thread that tells every monitor, in order, which devices arrive and leave.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "libusbk/device.h"
#include "libusbk/kerneldrivers.h"

namespace libusbk {

// What HotK_Init has set up.
struct Monitor {
    struct Reported {
        libusb_device* device;  // kept by HotPlug for as long as it is connected
        DeviceEntry entry;
    };

    MonitorParameters parameters;
    bool started = false;            // its turn in the order of the events has come
    bool closing = false;            // HotK_Free waits for the end of a callback
    std::vector<Reported> reported;  // arrivals whose removal is still to be reported
};

class HotPlug {
  public:
    // Throws std::system_error if libusb cannot watch the devices. Until libusb's events are run,
    // the devices known are those that are connected now.
    HotPlug(libusb_context* context, KernelDrivers& kernelDrivers);
    // libusb's events must have ended before.
    ~HotPlug();
    HotPlug(const HotPlug&) = delete;
    HotPlug& operator=(const HotPlug&) = delete;

    // As HotK_Init and HotK_Free.
    void addMonitor(const MonitorParameters& parameters, Monitor** monitor);
    bool removeMonitor(Monitor* monitor);

    // The user may not open the device. If it is an arrival's callback that has tried, the device
    // is reported anew once that has changed. Any thread.
    void openingDenied(libusb_device* device);

  private:
    struct Event {
        enum class Kind { kArrived, kLeft, kMonitorAdded };
        Kind kind;
        DeviceReference device;
        Monitor* monitor;
    };
    struct Connected {
        DeviceReference device;
        DeviceEntry entry;
        bool denied = false;  // its last arrival's callback could not open it
        int renewals = 0;     // how often it has been reported anew
    };
    using Lock = std::unique_lock<std::mutex>;

    static int LIBUSB_CALL onLibusbEvent(libusb_context* context, libusb_device* device,
                                         libusb_hotplug_event kind, void* self) noexcept;
    void post(Event event);
    void run() noexcept;
    void handle(Lock& lock, Event event);
    void arrived(Lock& lock, DeviceReference device);
    void left(Lock& lock, libusb_device* device);
    void startMonitor(Lock& lock, Monitor& monitor);
    bool awaitsRights() const;
    void renewThoseWithRights(Lock& lock);
    void reportArrival(Lock& lock, Monitor& monitor, const Connected& connected);
    void reportRemoval(Lock& lock, Monitor& monitor, libusb_device* device);
    // Runs a call on behalf of the monitor without the lock; the monitor stays until it returns.
    template <typename Call>
    void callOut(Lock& lock, Monitor& monitor, Call call);

    libusb_context* context_;
    KernelDrivers& kernelDrivers_;
    libusb_hotplug_callback_handle registration_ = 0;

    std::mutex mutex_;
    std::condition_variable posted_;    // an event, or the end
    std::condition_variable returned_;  // a callback has returned
    // Guarded by mutex_:
    std::deque<Event> events_;
    std::list<Monitor> monitors_;
    Monitor* calling_ = nullptr;  // whose callback is running
    bool stopping_ = false;

    std::vector<Connected> connected_;  // the thread's own
    std::thread thread_;
};

}  // namespace libusbk
