// The kernel drivers that were detached because they had bound an interface that is needed here.
// They stay away until the device leaves or the library ends, and are given back then.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "libusbk/device.h"

namespace libusbk {

class KernelDrivers {
  public:
    KernelDrivers() = default;
    // Gives back what was detached to the devices that are still there.
    ~KernelDrivers();
    KernelDrivers(const KernelDrivers&) = delete;
    KernelDrivers& operator=(const KernelDrivers&) = delete;

    // Detaches the driver of the interface, if there is one. Any thread.
    void detach(libusb_device_handle* handle, std::uint8_t interfaceNumber);
    // The device has left, and with it all that there was to give back. Any thread.
    void forget(libusb_device* device);

  private:
    struct Detached {
        DeviceReference device;
        std::uint8_t interfaceNumber;
    };

    std::mutex mutex_;
    std::vector<Detached> detached_;  // guarded by mutex_
};

}  // namespace libusbk
