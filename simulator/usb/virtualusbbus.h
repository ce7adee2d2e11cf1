// A USB bus with virtual devices in the place of libusbK. While it lives, bindings of libusbK get
// its table. Strict: what the host does wrong with handles, slots and claims is recorded.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/libusbk.h"
#include "simulator/errorlist.h"
#include "simulator/usb/usbbusobjects.h"
#include "simulator/usb/virtualusbdevice.h"

namespace simulator {

// How a plugged device shows itself.
struct UsbIdentity {
    std::uint16_t vendorId = 0x1234;
    std::uint16_t productId = 0x5678;
    std::int32_t driverId = libusbk::kDriverIdLibusb;
};

// Operations of libusbK that can be made to fail.
enum class UsbOperation {
    kStartup,      // LibK_Startup
    kDriverCheck,  // LibK_IsDriverInstalled
    kMonitor,      // HotK_Init
    kList,         // LstK_InitEx
    kOpen,         // UsbK_Init
    kClaim,        // UsbK_ClaimInterface
    kPoolInit,     // OvlK_Init
    kSlotAcquire,  // OvlK_Acquire
};

// One bus at a time, made before libusbK is bound and destroyed after it is unbound. All operations
// may be called from any thread.
class VirtualUsbBus {
  public:
    VirtualUsbBus();
    ~VirtualUsbBus();
    VirtualUsbBus(const VirtualUsbBus&) = delete;
    VirtualUsbBus& operator=(const VirtualUsbBus&) = delete;

    // Powers the device on at a port like "0000:00:14.0-1.1"; what was there is unplugged first.
    // Returns its device id, as in "USB\VID_1234&PID_5678\0000:00:14.0-1.1".
    std::string plug(const std::string& port, std::shared_ptr<VirtualUsbDevice> device,
                     const UsbIdentity& identity = {});
    // Ends all its transfers at once; waits for nothing. Does nothing for an empty port.
    void unplug(const std::string& port);
    bool isPlugged(const std::string& port) const;

    // The operation fails with the code, `times` times after `skip` calls that work.
    void fail(UsbOperation operation, std::uint32_t code, std::uint32_t skip = 0,
              std::uint32_t times = 1);
    // From now on no transfer with a slot ends inside the call that starts it.
    void deferTransfers(bool deferred);

    // What the host did wrong.
    std::vector<std::string> errors() const;
    std::size_t openHandles() const;

  private:
    friend struct UsbBusTable;

    struct Plugged {
        std::string port;
        std::shared_ptr<UsbConnection> connection;
    };
    struct Event {
        MonitorObject* monitor;
        libusbk::DeviceEntry entry;
        std::int32_t kind;
    };
    struct Failure {
        UsbOperation operation;
        std::uint32_t code;
        std::uint32_t skip;
        std::uint32_t times;
    };

    // The operations of libusbK, which UsbBusTable hands on.
    bool startup();
    void shutdown();
    bool isDriverInstalled();
    bool initMonitor(libusbk::Monitor** monitor, const libusbk::MonitorParameters& parameters);
    bool freeMonitor(libusbk::Monitor* monitor);
    bool initList(libusbk::DeviceList** list, const libusbk::DevicePattern& pattern);
    bool findInList(libusbk::DeviceList* list, std::uint16_t vendorId, std::uint16_t productId,
                    const libusbk::DeviceEntry** entry);
    bool freeList(libusbk::DeviceList* list);
    bool open(libusbk::UsbHandle** handle, const libusbk::DeviceEntry& entry);
    bool close(libusbk::UsbHandle* handle);
    bool claim(libusbk::UsbHandle* handle, std::uint8_t number);
    bool release(libusbk::UsbHandle* handle, std::uint8_t number);
    bool transfer(libusbk::UsbHandle* handle, const UsbRequest& request, std::uint32_t* transferred,
                  libusbk::OverlappedSlot* slot, const char* name);
    bool reset(libusbk::UsbHandle* handle, std::uint8_t endpoint);
    bool flush(libusbk::UsbHandle* handle, std::uint8_t endpoint);
    bool interrupt(libusbk::UsbHandle* handle);
    bool initPool(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle, std::int32_t count);
    bool freePool(libusbk::OverlappedPool* pool);
    bool acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool* pool);
    bool releaseSlot(libusbk::OverlappedSlot* slot);
    bool reuse(libusbk::OverlappedSlot* slot);
    bool waitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                      std::uint32_t* transferred);

    // Records a breach by the host; the operation fails.
    bool misuse(const char* operation, const char* text,
                std::uint32_t code = libusbk::kInvalidParameter);
    // Whether the operation is told to fail now; sets the last error then.
    bool isToFail(UsbOperation operation);
    HandleObject* openHandle(libusbk::UsbHandle* handle, const char* operation);
    // The same for an operation on a pipe.
    HandleObject* openPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                           const char* operation);
    SlotObject* takenSlot(libusbk::OverlappedSlot* slot, const char* operation);
    // Takes the device off the bus, once, and has its removal reported.
    void remove(const UsbConnection* connection);
    // These two are called with lock_ held.
    void report(const libusbk::DeviceEntry& entry, std::int32_t kind);
    void report(MonitorObject& monitor, const libusbk::DeviceEntry& entry, std::int32_t kind);
    void runEvents();

    ErrorList errors_;
    std::atomic<bool> deferred_ = false;

    mutable std::mutex lock_;  // guards all below but the atomic members; never held in a transfer
    std::condition_variable eventsChanged_;
    bool started_ = false;
    bool ending_ = false;
    std::int32_t lastAddress_ = 0;
    std::vector<Plugged> plugged_;
    std::vector<Failure> failures_;
    std::deque<Event> events_;
    MonitorObject* reportingTo_ = nullptr;
    std::deque<MonitorObject> monitors_;
    std::deque<ListObject> lists_;
    std::deque<HandleObject> handles_;
    std::deque<PoolObject> pools_;
    std::thread thread_;
};

}  // namespace simulator
