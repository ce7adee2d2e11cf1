// The operations of platform/libusbk.h: each checks what it is given and hands it to its object.
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <vector>

#include "libusbk/accessrule.h"
#include "libusbk/device.h"
#include "libusbk/lasterror.h"
#include "libusbk/library.h"
#include "libusbk/opendevice.h"
#include "libusbk/slots.h"
#include "libusbk/transfer.h"
#include "platform/libusbk.h"
#include "utils/trace.h"

namespace libusbk {

struct DeviceList {
    std::vector<DeviceEntry> entries;
};

struct UsbHandle {
    std::shared_ptr<OpenDevice> device;
};

namespace {

constexpr std::chrono::seconds kSlotlessLimit{1};
constexpr std::int32_t kMaximumSlots = 64;

std::unique_ptr<Library> library;

// Runs an operation; no exception gets out of the library.
template <typename Operation>
bool guarded(Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return fail(kNotEnoughMemory);
    } catch (const std::exception& problem) {
        TRACE("libusbK: %s\n", problem.what());
        return fail(kGeneralFailure);
    }
}

bool isInEndpoint(std::uint8_t endpoint) {
    return (endpoint & LIBUSB_ENDPOINT_IN) != 0;
}

bool transferOnPipe(UsbHandle& handle, std::uint8_t endpoint, std::uint8_t* buffer,
                    std::uint32_t length, std::uint32_t* transferred, OverlappedSlot* slot) {
    std::uint32_t moved = 0;
    bool done = false;
    if (slot == nullptr) {
        done = transferNow(handle.device, endpoint, buffer, length, kSlotlessLimit, moved);
        if (!done && lastError() == kCancelled)
            setLastError(kSemaphoreTimeout);
    } else if (slot->transfer.device() != handle.device) {
        setLastError(kInvalidParameter);
    } else if (slot->transfer.start(endpoint, buffer, length)) {
        setLastError(kIoPending);
    }
    if (transferred != nullptr)
        *transferred = moved;
    return done;
}

bool interfaceNumber(UsbHandle& handle, std::uint8_t& numberOrIndex, bool isIndex) {
    return !isIndex || handle.device->interfaceNumberAt(numberOrIndex, numberOrIndex);
}

void traceOpenFailure(const DeviceEntry& entry, int result) {
    if (result == LIBUSB_ERROR_ACCESS)
        TRACE("%s: no permission to open %s: the udev rule of this program gives it\n",
              entry.deviceId, entry.devicePath);
    else
        TRACE("%s: %s cannot be opened (%s)\n", entry.deviceId, entry.devicePath,
              libusb_error_name(result));
}

}  // namespace
}  // namespace libusbk

using namespace libusbk;

std::uint32_t LibK_LastError() {
    return lastError();
}

bool LibK_Startup() {
    return guarded([] {
        if (library != nullptr)
            return fail(kBusy);
        library = Library::start();
        return library != nullptr;
    });
}

void LibK_Shutdown() {
    library.reset();
}

bool LibK_IsDriverInstalled() {
    return guarded([] { return mayOpenDevices() || fail(kAccessDenied); });
}

bool HotK_Init(Monitor** monitor, const MonitorParameters* parameters) {
    return guarded([&] {
        if (monitor == nullptr || parameters == nullptr || parameters->callback == nullptr)
            return fail(kInvalidParameter);
        library->hotPlug().addMonitor(*parameters, monitor);
        return true;
    });
}

bool HotK_Free(Monitor* monitor) {
    return guarded([&] {
        if (!library->hotPlug().removeMonitor(monitor))
            return false;
        setLastError(kNoError);
        return true;
    });
}

bool LstK_InitEx(DeviceList** list, std::uint32_t, const DevicePattern* pattern) {
    return guarded([&] {
        if (list == nullptr || pattern == nullptr)
            return fail(kInvalidParameter);
        auto found = std::make_unique<DeviceList>();
        for (const DeviceReference& device : connectedDevices(library->context())) {
            DeviceEntry entry = identify(device.get());
            if (!matches(*pattern, entry))
                continue;
            describe(device.get(), entry);
            found->entries.push_back(entry);
        }
        *list = found.release();
        return true;
    });
}

bool LstK_FindByVidPid(DeviceList* list, std::uint16_t vendorId, std::uint16_t productId,
                       const DeviceEntry** entry) {
    if (list == nullptr || entry == nullptr)
        return fail(kInvalidParameter);
    for (const DeviceEntry& candidate : list->entries) {
        if (candidate.vendorId == vendorId && candidate.productId == productId) {
            *entry = &candidate;
            return true;
        }
    }
    return fail(kNoMoreItems);
}

bool LstK_Free(DeviceList* list) {
    delete list;
    return true;
}

bool UsbK_Init(UsbHandle** handle, const DeviceEntry* entry) {
    return guarded([&] {
        if (handle == nullptr || entry == nullptr)
            return fail(kInvalidParameter);
        const DeviceReference device = findDevice(library->context(), *entry);
        if (device == nullptr)
            return fail(kDeviceNotConnected);
        libusb_device_handle* opened = nullptr;
        const int result = libusb_open(device.get(), &opened);
        if (result != 0) {
            if (result == LIBUSB_ERROR_ACCESS)
                library->hotPlug().openingDenied(device.get());
            traceOpenFailure(*entry, result);
            return fail(codeOfResult(result));
        }
        std::unique_ptr<libusb_device_handle, decltype(&libusb_close)> owner(opened, libusb_close);
        auto made = std::make_unique<UsbHandle>();
        made->device =
            std::make_shared<OpenDevice>(opened, entry->deviceId, library->kernelDrivers());
        static_cast<void>(owner.release());
        *handle = made.release();
        return true;
    });
}

bool UsbK_Free(UsbHandle* handle) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        const std::unique_ptr<UsbHandle> owner(handle);
        handle->device->close();
        return true;
    });
}

bool UsbK_ClaimInterface(UsbHandle* handle, std::uint8_t numberOrIndex, bool isIndex) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        return interfaceNumber(*handle, numberOrIndex, isIndex) &&
               handle->device->claimInterface(numberOrIndex);
    });
}

bool UsbK_ReleaseInterface(UsbHandle* handle, std::uint8_t numberOrIndex, bool isIndex) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        return interfaceNumber(*handle, numberOrIndex, isIndex) &&
               handle->device->releaseInterface(numberOrIndex);
    });
}

bool UsbK_ReadPipe(UsbHandle* handle, std::uint8_t endpoint, std::uint8_t* buffer,
                   std::uint32_t length, std::uint32_t* transferred, OverlappedSlot* slot) {
    return guarded([&] {
        if (handle == nullptr || buffer == nullptr || !isInEndpoint(endpoint))
            return fail(kInvalidParameter);
        return transferOnPipe(*handle, endpoint, buffer, length, transferred, slot);
    });
}

bool UsbK_WritePipe(UsbHandle* handle, std::uint8_t endpoint, const std::uint8_t* buffer,
                    std::uint32_t length, std::uint32_t* transferred, OverlappedSlot* slot) {
    return guarded([&] {
        if (handle == nullptr || buffer == nullptr || isInEndpoint(endpoint))
            return fail(kInvalidParameter);
        // libusb takes one kind of pointer for both directions; it only reads from this one.
        return transferOnPipe(*handle, endpoint, const_cast<std::uint8_t*>(buffer), length,
                              transferred, slot);
    });
}

bool UsbK_ResetPipe(UsbHandle* handle, std::uint8_t endpoint) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        return resetPipe(handle->device, endpoint);
    });
}

bool UsbK_FlushPipe(UsbHandle* handle, std::uint8_t endpoint) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        return !isInEndpoint(endpoint) || drain(handle->device, endpoint);
    });
}

bool UsbK_Interrupt(UsbHandle* handle) {
    return guarded([&] {
        if (handle == nullptr)
            return fail(kInvalidParameter);
        handle->device->interrupt();
        return true;
    });
}

bool OvlK_Init(OverlappedPool** pool, UsbHandle* handle, std::int32_t count, std::uint32_t) {
    return guarded([&] {
        if (pool == nullptr || handle == nullptr || count <= 0 || count > kMaximumSlots)
            return fail(kInvalidParameter);
        *pool = std::make_unique<OverlappedPool>(handle->device, count).release();
        return true;
    });
}

bool OvlK_Free(OverlappedPool* pool) {
    return guarded([&] {
        delete pool;
        return true;
    });
}

bool OvlK_Acquire(OverlappedSlot** slot, OverlappedPool* pool) {
    return guarded([&] {
        if (slot == nullptr || pool == nullptr)
            return fail(kInvalidParameter);
        *slot = pool->acquire();
        return *slot != nullptr || fail(kNoMoreItems);
    });
}

bool OvlK_Release(OverlappedSlot* slot) {
    return guarded([&] {
        if (slot == nullptr)
            return fail(kInvalidParameter);
        slot->pool.release(*slot);
        return true;
    });
}

bool OvlK_ReUse(OverlappedSlot* slot) {
    return guarded([&] {
        if (slot == nullptr)
            return fail(kInvalidParameter);
        return !slot->transfer.isRunning() || fail(kBusy);
    });
}

bool OvlK_WaitOrCancel(OverlappedSlot* slot, std::uint32_t timeoutMs, std::uint32_t* transferred) {
    return guarded([&] {
        if (slot == nullptr)
            return fail(kInvalidParameter);
        std::uint32_t moved = 0;
        const bool done = slot->transfer.wait(std::chrono::milliseconds(timeoutMs), moved);
        if (transferred != nullptr)
            *transferred = moved;
        return done;
    });
}
