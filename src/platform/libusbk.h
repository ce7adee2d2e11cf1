// The interface of libusbK, the USB library that is bound at run time, as far as the USB engine
// needs it. Implemented by libusbK.so (src/libusbk) and by the simulator's USB bus; the
// engine calls it through the table of vorlan/burn/libusbktable.h only.
//
// Every operation but LibK_LastError may be called from any thread. Unless said otherwise it
// returns true on success; on failure the calling thread's LibK_LastError gives the cause.
#pragma once

#include <cstdint>

namespace libusbk {

// System codes that LibK_LastError reports. The values are those of the Windows system errors of
// the same meaning, since they reach the logs and the engine tells some of them apart.
enum ErrorCode : std::uint32_t {
    kNoError = 0,
    kInvalidFunction = 1,        // not supported by the driver
    kAccessDenied = 5,           // the device is there, the permission is not
    kNotEnoughMemory = 8,        //
    kGeneralFailure = 31,        // stall, babble or any other error on the wire
    kInvalidParameter = 87,      //
    kSemaphoreTimeout = 121,     // a transfer without a slot ran into its limit
    kModuleNotFound = 126,       // libusbK could not be bound
    kBusy = 170,                 // somebody else has claimed the interface
    kNoMoreItems = 259,          // there is no such interface, device or slot
    kOperationAborted = 995,     // the handle was interrupted
    kIoPending = 997,            // the transfer was started and runs on
    kDeviceNotConnected = 1167,  // the device is gone
    kCancelled = 1223,           // the wait ran out of time and the transfer was cancelled
};

constexpr std::uint32_t kTextSize = 256;  // bytes of every text field, terminator included

// Driver ids of DeviceEntry.
constexpr std::int32_t kDriverIdWinUsb = 2;   // "winusb.sys"
constexpr std::int32_t kDriverIdLibusb = 10;  // libusb-1.0 over the kernel's usbfs

// One device, valid during the callback or until its list is freed; copy what is needed later.
// All texts are NUL-terminated.
struct DeviceEntry {
    std::uint16_t vendorId;
    std::uint16_t productId;
    std::int32_t driverId;
    std::int32_t busNumber;
    std::int32_t deviceAddress;
    // "USB\VID_1234&PID_5678\CONTROLLER-PORT.PORT": names the physical port and no other, so it
    // survives re-enumeration and reboots. Behind a controller's second root hub, which numbers its
    // ports as the first does, "CONTROLLER#1-PORT.PORT", and so on.
    char deviceId[kTextSize];
    char instanceId[kTextSize];
    char deviceInterfaceGuid[kTextSize];
    char manufacturer[kTextSize];
    char description[kTextSize];
    char service[kTextSize];
    char devicePath[kTextSize];
};

// What a list or a monitor is to hold. A field matches the whole text of a device, "*" at its end
// any rest; an empty field matches everything.
struct DevicePattern {
    char deviceId[kTextSize];
    char deviceInterfaceGuid[kTextSize];
    char classGuid[kTextSize];
};

// Opaque objects; each is owned by the caller that made it until it is freed.
struct Monitor;
struct DeviceList;
struct UsbHandle;
struct OverlappedPool;
struct OverlappedSlot;

constexpr std::int32_t kArrival = 2;
constexpr std::int32_t kRemoval = 4;

// Called on one thread of the library, in the order of the events; every removal follows an arrival
// with the same ids. It may use every operation but HotK_Free on its own monitor, which fails with
// kInvalidParameter, and it may take its time: transfers run on meanwhile. `user` is the monitor's.
using HotPlugCallback = void (*)(Monitor* monitor, const DeviceEntry* entry, std::int32_t kind,
                                 void* user);

constexpr std::uint32_t kReportConnected = 1;  // report what is connected already, as arrivals

struct MonitorParameters {
    std::uint32_t flags;
    DevicePattern pattern;
    HotPlugCallback callback;
    void* user;  // for the callback; nobody else looks behind it
};

}  // namespace libusbk

extern "C" {

// The calling thread's code of its last failed operation. Only HotK_Free sets kNoError on success.
std::uint32_t LibK_LastError();

// Begin and end of a binding: the library's context is made and freed here. No other operation may
// run before LibK_Startup has succeeded or once LibK_Shutdown has begun, and all monitors, lists,
// handles and pools are freed before. LibK_Shutdown gives the kernel its drivers back.
bool LibK_Startup();
void LibK_Shutdown();

// Whether the chip's devices are, or will be when plugged in next, open to this user: this
// program's udev rule is installed, or the process needs none. Fails with kAccessDenied.
bool LibK_IsDriverInstalled();

// Starts reporting arrivals and removals to the callback.
bool HotK_Init(libusbk::Monitor** monitor, const libusbk::MonitorParameters* parameters);
// Ends the monitor: waits for a callback that is running, and none begins after. LibK_LastError is
// kNoError on success.
bool HotK_Free(libusbk::Monitor* monitor);

// A snapshot of the connected devices that match.
bool LstK_InitEx(libusbk::DeviceList** list, std::uint32_t flags,
                 const libusbk::DevicePattern* pattern);
// The first entry with these ids; it lives as long as the list. Fails with kNoMoreItems.
bool LstK_FindByVidPid(libusbk::DeviceList* list, std::uint16_t vendorId, std::uint16_t productId,
                       const libusbk::DeviceEntry** entry);
bool LstK_Free(libusbk::DeviceList* list);

// Opens the device; its pipes work at once: the first use of one claims interface 0 unless the
// handle has claimed one, and fails with kBusy if somebody else has it. Fails with
// kDeviceNotConnected, kAccessDenied, kNotEnoughMemory or kGeneralFailure.
//
// Rights often come a moment after the device, or when an operator puts them right. So a device
// whose opening fails with kAccessDenied in the callback of its arrival is reported as removed and
// as arrived anew as soon as it may be opened, without holding up others meanwhile.
bool UsbK_Init(libusbk::UsbHandle** handle, const libusbk::DeviceEntry* entry);
// Closes the handle, and cancels what is still under way on it. Its pools may be freed before or
// after, but nothing can be started with their slots any more.
bool UsbK_Free(libusbk::UsbHandle* handle);
// numberOrIndex is an interface number unless isIndex. Fails with kNoMoreItems if there is none,
// kBusy if somebody else has it.
bool UsbK_ClaimInterface(libusbk::UsbHandle* handle, std::uint8_t numberOrIndex, bool isIndex);
bool UsbK_ReleaseInterface(libusbk::UsbHandle* handle, std::uint8_t numberOrIndex, bool isIndex);
// With a slot the transfer is started: true if it has finished inside the call, with the count,
// else false with kIoPending or the cause. The buffer stays in use until OvlK_WaitOrCancel has
// returned. Without a slot (null) the transfer completes inside the call and fails with
// kSemaphoreTimeout after one second.
bool UsbK_ReadPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint, std::uint8_t* buffer,
                   std::uint32_t length, std::uint32_t* transferred, libusbk::OverlappedSlot* slot);
bool UsbK_WritePipe(libusbk::UsbHandle* handle, std::uint8_t endpoint, const std::uint8_t* buffer,
                    std::uint32_t length, std::uint32_t* transferred,
                    libusbk::OverlappedSlot* slot);
// Clears a halt of the pipe. Fails with kSemaphoreTimeout if the device has not answered after half
// a second, kOperationAborted as soon as the handle is interrupted. A device that falls silent just
// after it has answered can hold the call up for 5 seconds more.
bool UsbK_ResetPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint);
// Empties the pipe: an IN pipe drops answers that came too late until none follows for a moment, an
// OUT pipe has nothing to drop and is never touched. Fails with kSemaphoreTimeout if the device
// never stops answering, kGeneralFailure if the pipe is halted.
bool UsbK_FlushPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint);
// Ends all waits on the handle at once with kOperationAborted; from then on every transfer on it,
// every UsbK_ResetPipe and the UsbK_FlushPipe of an IN pipe fail with that code. A transfer that
// has completed before keeps its result. May be called while other threads use the handle, but not
// while or after it is freed.
bool UsbK_Interrupt(libusbk::UsbHandle* handle);

// A pool of `count` slots for transfers on the handle; flags are 0.
bool OvlK_Init(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle, std::int32_t count,
               std::uint32_t flags);
// Frees the pool with its slots, and cancels what is still under way with them.
bool OvlK_Free(libusbk::OverlappedPool* pool);
// Fails with kNoMoreItems when all slots are taken.
bool OvlK_Acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool* pool);
bool OvlK_Release(libusbk::OverlappedSlot* slot);
// Makes the slot ready for its next transfer. Fails with kBusy while one is under way.
bool OvlK_ReUse(libusbk::OverlappedSlot* slot);
// Waits for the transfer of the slot. True when it ended well in time. On time-out it is cancelled:
// false with kCancelled, and the count says exactly what moved before; true if the cancellation
// came too late and the transfer completed. After an interruption false with kOperationAborted,
// after a failure false with its cause, both with the count. Fails with kInvalidParameter if no
// transfer was started.
bool OvlK_WaitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                       std::uint32_t* transferred);
}
