// A device that has been opened: its claims, and the transfers under way on it.
#pragma once

#include <libusb.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "libusbk/kerneldrivers.h"

namespace libusbk {

class Transfer;

// Operations return false with the last error set. Any thread may interrupt; all else is for one
// thread at a time, or for several that use different transfers.
class OpenDevice {
  public:
    // Takes over the open handle. `name` is the device's id, for the trace.
    OpenDevice(libusb_device_handle* handle, std::string name, KernelDrivers& kernelDrivers);
    ~OpenDevice();
    OpenDevice(const OpenDevice&) = delete;
    OpenDevice& operator=(const OpenDevice&) = delete;

    // Cancels what is under way, gives up all claims and closes the handle. Pools may still hold
    // the object, but nothing can be started on it any more.
    void close();

    bool claimInterface(std::uint8_t number);
    bool releaseInterface(std::uint8_t number);
    // The number of the interface at this place of the configuration.
    bool interfaceNumberAt(std::uint8_t index, std::uint8_t& number);

    // Clears the endpoint's halt in the device and the kernel; a mute device holds this up for 5 s.
    bool clearHalt(std::uint8_t endpoint);

    // Ends all waits; from now on nothing can be started.
    void interrupt();

  private:
    friend class Transfer;

    // Whether transfers can be started. The kernel wants the interface of an endpoint claimed: if
    // nothing is claimed yet, this claims interface 0.
    bool makeReady();

    const std::string name_;
    KernelDrivers& kernelDrivers_;
    libusb_device_handle* handle_;  // null once it is closed

    std::mutex mutex_;
    std::condition_variable changed_;  // a transfer has ended, or the interruption has come
    // Guarded by mutex_:
    std::uint32_t claimed_ = 0;  // one bit for each interface number
    bool interrupted_ = false;
    std::vector<Transfer*> running_;
};

}  // namespace libusbk
