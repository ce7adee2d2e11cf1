#include "libusbk/opendevice.h"

#include <utility>

#include "libusbk/lasterror.h"
#include "libusbk/transfer.h"
#include "utils/trace.h"

namespace libusbk {
namespace {

constexpr std::uint8_t kInterfaces = 32;  // more than the kernel lets anybody claim

constexpr std::uint32_t bitOf(std::uint8_t number) {
    return std::uint32_t{1} << number;
}

}  // namespace

OpenDevice::OpenDevice(libusb_device_handle* handle, std::string name, KernelDrivers& kernelDrivers)
    : name_(std::move(name)), kernelDrivers_(kernelDrivers), handle_(handle) {}

OpenDevice::~OpenDevice() {
    close();
}

void OpenDevice::close() {
    std::unique_lock lock(mutex_);
    if (handle_ == nullptr)
        return;
    interrupted_ = true;
    changed_.notify_all();
    const std::vector<Transfer*> running = running_;
    const std::uint32_t claimed = std::exchange(claimed_, 0);
    lock.unlock();
    for (Transfer* const transfer : running)
        transfer->cancelAndWait();
    // Closing drops the claims too, but not before the last copy of the descriptor is gone.
    for (std::uint8_t number = 0; number < kInterfaces; ++number) {
        if ((claimed & bitOf(number)) != 0)
            libusb_release_interface(handle_, number);
    }
    libusb_close(std::exchange(handle_, nullptr));
}

bool OpenDevice::claimInterface(std::uint8_t number) {
    if (number >= kInterfaces)
        return fail(kNoMoreItems);
    kernelDrivers_.detach(handle_, number);
    const int result = libusb_claim_interface(handle_, number);
    if (result != 0) {
        TRACE("%s: interface %d cannot be claimed (%s)%s\n", name_.c_str(), number,
              libusb_error_name(result),
              result == LIBUSB_ERROR_BUSY ? ": another program uses the device" : "");
        return fail(codeOfResult(result));
    }
    const std::lock_guard guard(mutex_);
    claimed_ |= bitOf(number);
    return true;
}

bool OpenDevice::releaseInterface(std::uint8_t number) {
    if (number >= kInterfaces)
        return fail(kNoMoreItems);
    {
        const std::lock_guard guard(mutex_);
        claimed_ &= ~bitOf(number);
    }
    const int result = libusb_release_interface(handle_, number);
    return result == 0 || fail(codeOfResult(result));
}

bool OpenDevice::interfaceNumberAt(std::uint8_t index, std::uint8_t& number) {
    libusb_config_descriptor* configuration = nullptr;
    const int result =
        libusb_get_active_config_descriptor(libusb_get_device(handle_), &configuration);
    if (result != 0)
        return fail(codeOfResult(result));
    const bool exists = index < configuration->bNumInterfaces;
    if (exists)
        number = configuration->interface[index].altsetting->bInterfaceNumber;
    libusb_free_config_descriptor(configuration);
    return exists || fail(kNoMoreItems);
}

bool OpenDevice::clearHalt(std::uint8_t endpoint) {
    if (!makeReady())
        return false;
    const int result = libusb_clear_halt(handle_, endpoint);
    return result == 0 || fail(codeOfResult(result));
}

void OpenDevice::interrupt() {
    const std::lock_guard guard(mutex_);
    interrupted_ = true;
    changed_.notify_all();
}

bool OpenDevice::makeReady() {
    std::unique_lock lock(mutex_);
    if (handle_ == nullptr)
        return fail(kInvalidParameter);
    if (interrupted_)
        return fail(kOperationAborted);
    const bool claimed = claimed_ != 0;
    lock.unlock();
    return claimed || claimInterface(0);
}

}  // namespace libusbk
