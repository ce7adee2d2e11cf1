#include "simulator/usb/virtualusbbus.h"

#include <atomic>
#include <utility>

#include "simulator/usb/usbbuscore.h"
#include "vorlan/burn/libusbktable.h"

namespace simulator {
namespace {

// The operations by the names of the interface, each handed to the bus that lives.
struct UsbBusTable {
    static inline std::atomic<UsbBusCore*> bus = nullptr;

    static std::uint32_t LibK_LastError() { return usbLastError(); }
    static bool LibK_Startup() { return bus.load()->startup(); }
    static void LibK_Shutdown() { bus.load()->shutdown(); }
    static bool LibK_IsDriverInstalled() { return bus.load()->isDriverInstalled(); }
    static bool HotK_Init(libusbk::Monitor** monitor,
                          const libusbk::MonitorParameters* parameters) {
        return bus.load()->initMonitor(monitor, *parameters);
    }
    static bool HotK_Free(libusbk::Monitor* monitor) { return bus.load()->freeMonitor(monitor); }
    static bool LstK_InitEx(libusbk::DeviceList** list, std::uint32_t /*flags*/,
                            const libusbk::DevicePattern* pattern) {
        return bus.load()->initList(list, *pattern);
    }
    static bool LstK_FindByVidPid(libusbk::DeviceList* list, std::uint16_t vendorId,
                                  std::uint16_t productId, const libusbk::DeviceEntry** entry) {
        return bus.load()->findInList(list, vendorId, productId, entry);
    }
    static bool LstK_Free(libusbk::DeviceList* list) { return bus.load()->freeList(list); }
    static bool UsbK_Init(libusbk::UsbHandle** handle, const libusbk::DeviceEntry* entry) {
        return bus.load()->open(handle, *entry);
    }
    static bool UsbK_Free(libusbk::UsbHandle* handle) { return bus.load()->close(handle); }
    static bool UsbK_ClaimInterface(libusbk::UsbHandle* handle, std::uint8_t number, bool) {
        return bus.load()->claim(handle, number);
    }
    static bool UsbK_ReleaseInterface(libusbk::UsbHandle* handle, std::uint8_t number, bool) {
        return bus.load()->release(handle, number);
    }
    static bool UsbK_ReadPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                              std::uint8_t* buffer, std::uint32_t length,
                              std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
        return bus.load()->transfer(handle, {endpoint, buffer, nullptr, length}, transferred, slot,
                                    "UsbK_ReadPipe");
    }
    static bool UsbK_WritePipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                               const std::uint8_t* buffer, std::uint32_t length,
                               std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
        return bus.load()->transfer(handle, {endpoint, nullptr, buffer, length}, transferred, slot,
                                    "UsbK_WritePipe");
    }
    static bool UsbK_ResetPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
        return bus.load()->reset(handle, endpoint);
    }
    static bool UsbK_FlushPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
        return bus.load()->flush(handle, endpoint);
    }
    static bool UsbK_Interrupt(libusbk::UsbHandle* handle) { return bus.load()->interrupt(handle); }
    static bool OvlK_Init(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle,
                          std::int32_t count, std::uint32_t /*flags*/) {
        return bus.load()->initPool(pool, handle, count);
    }
    static bool OvlK_Free(libusbk::OverlappedPool* pool) { return bus.load()->freePool(pool); }
    static bool OvlK_Acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool* pool) {
        return bus.load()->acquire(slot, pool);
    }
    static bool OvlK_Release(libusbk::OverlappedSlot* slot) {
        return bus.load()->releaseSlot(slot);
    }
    static bool OvlK_ReUse(libusbk::OverlappedSlot* slot) { return bus.load()->reuse(slot); }
    static bool OvlK_WaitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                                  std::uint32_t* transferred) {
        return bus.load()->waitOrCancel(slot, timeoutMs, transferred);
    }

    static const LibusbkTable table;
};

const LibusbkTable UsbBusTable::table = [] {
    LibusbkTable operations{};
#define SIMULATOR_OPERATION(name) operations.name = UsbBusTable::name;
    LIBUSBK_OPERATIONS(SIMULATOR_OPERATION)
#undef SIMULATOR_OPERATION
    return operations;
}();

}  // namespace

VirtualUsbBus::VirtualUsbBus() : core_(std::make_unique<UsbBusCore>()) {
    UsbBusTable::bus = core_.get();
    substituteLibusbk(&UsbBusTable::table);
}

VirtualUsbBus::~VirtualUsbBus() {
    substituteLibusbk(nullptr);
    UsbBusTable::bus = nullptr;
}

std::string VirtualUsbBus::plug(const std::string& port, std::shared_ptr<VirtualUsbDevice> device,
                                const UsbIdentity& identity) {
    return core_->plug(port, std::move(device), identity);
}

void VirtualUsbBus::unplug(const std::string& port) {
    core_->unplug(port);
}

bool VirtualUsbBus::isPlugged(const std::string& port) const {
    return core_->isPlugged(port);
}

void VirtualUsbBus::fail(UsbOperation operation, std::uint32_t code, std::uint32_t skip,
                         std::uint32_t times) {
    core_->fail(operation, code, skip, times);
}

void VirtualUsbBus::deferTransfers(bool deferred) {
    core_->deferred_ = deferred;
}

std::vector<std::string> VirtualUsbBus::errors() const {
    return core_->errors_.texts();
}

std::size_t VirtualUsbBus::openHandles() const {
    return core_->openHandles();
}

}  // namespace simulator
