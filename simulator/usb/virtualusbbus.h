// A USB bus with virtual devices in the place of libusbK. While it lives, bindings of libusbK get
// its table. Strict: what the host does wrong with handles, slots and claims is recorded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/libusbk.h"
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
    Startup,      // LibK_Startup
    DriverCheck,  // LibK_IsDriverInstalled
    Monitor,      // HotK_Init
    List,         // LstK_InitEx
    Open,         // UsbK_Init
    Claim,        // UsbK_ClaimInterface
    PoolInit,     // OvlK_Init
    SlotAcquire,  // OvlK_Acquire
};

class UsbBusCore;

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
    const std::unique_ptr<UsbBusCore> core_;
};

}  // namespace simulator
