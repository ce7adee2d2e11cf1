#include "libusbk/kerneldrivers.h"

#include <algorithm>

#include "utils/trace.h"

namespace libusbk {
namespace {

void giveBack(libusb_device* device, std::uint8_t interfaceNumber) {
    libusb_device_handle* handle = nullptr;
    int result = libusb_open(device, &handle);
    if (result == 0) {
        result = libusb_attach_kernel_driver(handle, interfaceNumber);
        libusb_close(handle);
    }
    if (result != 0 && result != LIBUSB_ERROR_NO_DEVICE)
        TRACE("%s: the kernel's driver does not come back (%s)\n", identify(device).deviceId,
              libusb_error_name(result));
}

}  // namespace

KernelDrivers::~KernelDrivers() {
    for (const Detached& detached : detached_)
        giveBack(detached.device.get(), detached.interfaceNumber);
}

void KernelDrivers::detach(libusb_device_handle* handle, std::uint8_t interfaceNumber) {
    if (libusb_kernel_driver_active(handle, interfaceNumber) != 1)
        return;
    libusb_device* const device = libusb_get_device(handle);
    const int result = libusb_detach_kernel_driver(handle, interfaceNumber);
    if (result != 0) {
        // Whoever needs the interface now finds it busy, or the device gone.
        TRACE("%s: the kernel's driver cannot be detached (%s)\n", identify(device).deviceId,
              libusb_error_name(result));
        return;
    }
    const std::lock_guard guard(mutex_);
    const bool known = std::any_of(detached_.begin(), detached_.end(), [&](const Detached& other) {
        return other.device.get() == device && other.interfaceNumber == interfaceNumber;
    });
    if (!known)
        detached_.push_back({referTo(device), interfaceNumber});
}

void KernelDrivers::forget(libusb_device* device) {
    const std::lock_guard guard(mutex_);
    std::erase_if(detached_,
                  [&](const Detached& detached) { return detached.device.get() == device; });
}

}  // namespace libusbk
