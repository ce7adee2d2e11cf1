#include "simulator/usb/virtualusbbus.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "vorlan/burn/libusbktable.h"

namespace simulator {
namespace {

using libusbk::DeviceEntry;
using libusbk::DevicePattern;

constexpr std::chrono::seconds kLimitWithoutSlot{1};

thread_local std::uint32_t lastError = libusbk::kNoError;

bool failWith(std::uint32_t code) {
    lastError = code;
    return false;
}

// The use of what was freed is seen and told until so many others of its kind have been made.
constexpr std::size_t kRemembered = 100;

template <typename Object>
void forgetOldest(std::deque<Object>& objects) {
    while (objects.size() > kRemembered && !objects.front().live)
        objects.pop_front();
}

template <std::size_t Size>
void putText(char (&field)[Size], const std::string& text) {
    std::snprintf(field, Size, "%s", text.c_str());
}

bool matches(const char* text, const char* pattern) {
    const std::string_view wanted(pattern);
    const std::string_view given(text);
    if (wanted.empty())
        return true;
    if (wanted.back() == '*')
        return given.starts_with(wanted.substr(0, wanted.size() - 1));
    return given == wanted;
}

bool matches(const DeviceEntry& entry, const DevicePattern& pattern) {
    return matches(entry.deviceId, pattern.deviceId) &&
           matches(entry.deviceInterfaceGuid, pattern.deviceInterfaceGuid) &&
           matches("", pattern.classGuid);
}

bool isIn(std::uint8_t endpoint) {
    return endpoint == kCommandIn || endpoint == kDataIn;
}

bool isOut(std::uint8_t endpoint) {
    return endpoint == kCommandOut || endpoint == kDataOut;
}

}  // namespace

// The operations by the names of the interface, each handed to the bus that lives.
struct UsbBusTable {
    static inline std::atomic<VirtualUsbBus*> bus = nullptr;

    static std::uint32_t LibK_LastError() { return lastError; }
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

VirtualUsbBus::VirtualUsbBus() : thread_([this] { runEvents(); }) {
    UsbBusTable::bus = this;
    substituteLibusbk(&UsbBusTable::table);
}

VirtualUsbBus::~VirtualUsbBus() {
    substituteLibusbk(nullptr);
    UsbBusTable::bus = nullptr;
    {
        const std::lock_guard guard(lock_);
        ending_ = true;
    }
    eventsChanged_.notify_all();
    thread_.join();
}

std::string VirtualUsbBus::plug(const std::string& port, std::shared_ptr<VirtualUsbDevice> device,
                                const UsbIdentity& identity) {
    unplug(port);
    device->powerOn();
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "USB\\VID_%04X&PID_%04X\\", unsigned{identity.vendorId},
                  unsigned{identity.productId});
    std::string deviceId = prefix + port;
    DeviceEntry entry{};
    entry.vendorId = identity.vendorId;
    entry.productId = identity.productId;
    entry.driverId = identity.driverId;
    entry.busNumber = 1;
    putText(entry.deviceId, deviceId);
    putText(entry.instanceId, deviceId);
    putText(entry.deviceInterfaceGuid, "{00000000-0000-0000-0000-000000000000}");
    putText(entry.manufacturer, "Vorlan");
    putText(entry.description, "Virtual Vorlan device");
    putText(entry.service, "simulator");
    putText(entry.devicePath, "simulator/" + port);

    const std::lock_guard guard(lock_);
    entry.deviceAddress = ++lastAddress_;
    // The connection calls this while it lives only, and it knows itself then.
    const auto self = std::make_shared<std::weak_ptr<UsbConnection>>();
    const auto connection =
        std::make_shared<UsbConnection>(std::move(device), entry, errors_, [this, self] {
            if (const std::shared_ptr<UsbConnection> left = self->lock())
                remove(left.get());
        });
    *self = connection;
    plugged_.push_back({port, connection});
    report(entry, libusbk::kArrival);
    return deviceId;
}

void VirtualUsbBus::unplug(const std::string& port) {
    std::shared_ptr<UsbConnection> connection;
    {
        const std::lock_guard guard(lock_);
        const auto found = std::ranges::find(plugged_, port, &Plugged::port);
        if (found == plugged_.end())
            return;
        connection = found->connection;
    }
    connection->cut();
    remove(connection.get());
}

bool VirtualUsbBus::isPlugged(const std::string& port) const {
    const std::lock_guard guard(lock_);
    return std::ranges::find(plugged_, port, &Plugged::port) != plugged_.end();
}

void VirtualUsbBus::remove(const UsbConnection* connection) {
    const std::lock_guard guard(lock_);
    const auto found = std::ranges::find_if(
        plugged_, [&](const Plugged& p) { return p.connection.get() == connection; });
    if (found == plugged_.end())
        return;
    report(connection->entry(), libusbk::kRemoval);
    plugged_.erase(found);
}

void VirtualUsbBus::report(const DeviceEntry& entry, std::int32_t kind) {
    for (MonitorObject& monitor : monitors_) {
        if (monitor.live && matches(entry, monitor.pattern))
            report(monitor, entry, kind);
    }
}

void VirtualUsbBus::report(MonitorObject& monitor, const DeviceEntry& entry, std::int32_t kind) {
    // A removal is told only to those who were told the arrival.
    if (kind == libusbk::kArrival)
        monitor.reported.insert(entry.deviceAddress);
    else if (monitor.reported.erase(entry.deviceAddress) == 0)
        return;
    events_.push_back({&monitor, entry, kind});
    eventsChanged_.notify_all();
}

void VirtualUsbBus::runEvents() {
    std::unique_lock lock(lock_);
    for (;;) {
        eventsChanged_.wait(lock, [&] { return ending_ || !events_.empty(); });
        if (ending_)
            return;
        const Event event = events_.front();
        events_.pop_front();
        reportingTo_ = event.monitor;
        lock.unlock();
        event.monitor->callback(opaque(event.monitor), &event.entry, event.kind,
                                event.monitor->user);
        lock.lock();
        reportingTo_ = nullptr;
        eventsChanged_.notify_all();
    }
}

void VirtualUsbBus::fail(UsbOperation operation, std::uint32_t code, std::uint32_t skip,
                         std::uint32_t times) {
    const std::lock_guard guard(lock_);
    failures_.push_back({operation, code, skip, times});
}

bool VirtualUsbBus::isToFail(UsbOperation operation) {
    const std::lock_guard guard(lock_);
    for (Failure& failure : failures_) {
        if (failure.operation != operation || failure.times == 0)
            continue;
        if (failure.skip > 0) {
            --failure.skip;
            continue;
        }
        --failure.times;
        lastError = failure.code;
        return true;
    }
    return false;
}

void VirtualUsbBus::deferTransfers(bool deferred) {
    deferred_ = deferred;
}

std::vector<std::string> VirtualUsbBus::errors() const {
    return errors_.texts();
}

std::size_t VirtualUsbBus::openHandles() const {
    const std::lock_guard guard(lock_);
    return static_cast<std::size_t>(std::ranges::count_if(
        handles_, [](const HandleObject& handle) { return handle.live.load(); }));
}

bool VirtualUsbBus::misuse(const char* operation, const char* text, std::uint32_t code) {
    errors_.add(std::string(operation) + ": " + text);
    return failWith(code);
}

HandleObject* VirtualUsbBus::openHandle(libusbk::UsbHandle* handle, const char* operation) {
    HandleObject* const object = objectOf<HandleObject>(handle);
    if (object != nullptr && object->live)
        return object;
    misuse(operation, "no open handle");
    return nullptr;
}

HandleObject* VirtualUsbBus::openPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                                      const char* operation) {
    HandleObject* const object = openHandle(handle, operation);
    if (object == nullptr || isIn(endpoint) || isOut(endpoint))
        return object;
    misuse(operation, "no such pipe");
    return nullptr;
}

SlotObject* VirtualUsbBus::takenSlot(libusbk::OverlappedSlot* slot, const char* operation) {
    SlotObject* const object = objectOf<SlotObject>(slot);
    if (object != nullptr && object->taken)
        return object;
    misuse(operation, "no slot that was acquired");
    return nullptr;
}

bool VirtualUsbBus::startup() {
    if (isToFail(UsbOperation::kStartup))
        return false;
    const std::lock_guard guard(lock_);
    if (started_)
        return misuse("LibK_Startup", "twice");
    started_ = true;
    return true;
}

void VirtualUsbBus::shutdown() {
    const std::lock_guard guard(lock_);
    if (!started_)
        misuse("LibK_Shutdown", "not started");
    started_ = false;
    const auto live = [](const auto& object) { return bool{object.live}; };
    if (std::ranges::any_of(monitors_, live))
        misuse("LibK_Shutdown", "a monitor was not freed");
    if (std::ranges::any_of(lists_, live))
        misuse("LibK_Shutdown", "a device list was not freed");
    if (std::ranges::any_of(handles_, live))
        misuse("LibK_Shutdown", "a handle was not freed");
    if (std::ranges::any_of(pools_, live))
        misuse("LibK_Shutdown", "a pool was not freed");
}

bool VirtualUsbBus::isDriverInstalled() {
    if (isToFail(UsbOperation::kDriverCheck))
        return false;
    const std::lock_guard guard(lock_);
    return started_ || misuse("LibK_IsDriverInstalled", "not started");
}

bool VirtualUsbBus::initMonitor(libusbk::Monitor** monitor,
                                const libusbk::MonitorParameters& parameters) {
    if (isToFail(UsbOperation::kMonitor))
        return false;
    const std::lock_guard guard(lock_);
    if (!started_ || parameters.callback == nullptr)
        return misuse("HotK_Init", "not started, or no callback");
    MonitorObject& object = monitors_.emplace_back();
    object.pattern = parameters.pattern;
    object.callback = parameters.callback;
    object.user = parameters.user;
    *monitor = opaque(&object);
    if ((parameters.flags & libusbk::kReportConnected) != 0) {
        for (const Plugged& plugged : plugged_) {
            const DeviceEntry& entry = plugged.connection->entry();
            if (matches(entry, object.pattern))
                report(object, entry, libusbk::kArrival);
        }
    }
    return true;
}

bool VirtualUsbBus::freeMonitor(libusbk::Monitor* monitor) {
    MonitorObject* const object = objectOf<MonitorObject>(monitor);
    std::unique_lock lock(lock_);
    if (object == nullptr || !object->live)
        return misuse("HotK_Free", "no such monitor");
    if (reportingTo_ == object && std::this_thread::get_id() == thread_.get_id())
        return misuse("HotK_Free", "called within the monitor's own callback");
    object->live = false;
    std::erase_if(events_, [&](const Event& event) { return event.monitor == object; });
    eventsChanged_.wait(lock, [&] { return reportingTo_ != object; });
    lastError = libusbk::kNoError;
    return true;
}

bool VirtualUsbBus::initList(libusbk::DeviceList** list, const DevicePattern& pattern) {
    if (isToFail(UsbOperation::kList))
        return false;
    const std::lock_guard guard(lock_);
    if (!started_)
        return misuse("LstK_InitEx", "not started");
    forgetOldest(lists_);
    ListObject& object = lists_.emplace_back();
    for (const Plugged& plugged : plugged_) {
        if (matches(plugged.connection->entry(), pattern))
            object.entries.push_back(plugged.connection->entry());
    }
    *list = opaque(&object);
    return true;
}

bool VirtualUsbBus::findInList(libusbk::DeviceList* list, std::uint16_t vendorId,
                               std::uint16_t productId, const DeviceEntry** entry) {
    const ListObject* const object = objectOf<ListObject>(list);
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("LstK_FindByVidPid", "no such list");
    const auto found = std::ranges::find_if(object->entries, [&](const DeviceEntry& e) {
        return e.vendorId == vendorId && e.productId == productId;
    });
    if (found == object->entries.end())
        return failWith(libusbk::kNoMoreItems);
    *entry = &*found;
    return true;
}

bool VirtualUsbBus::freeList(libusbk::DeviceList* list) {
    ListObject* const object = objectOf<ListObject>(list);
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("LstK_Free", "no such list");
    object->live = false;
    std::vector<DeviceEntry>().swap(object->entries);
    return true;
}

bool VirtualUsbBus::open(libusbk::UsbHandle** handle, const DeviceEntry& entry) {
    if (isToFail(UsbOperation::kOpen))
        return false;
    const std::lock_guard guard(lock_);
    if (!started_)
        return misuse("UsbK_Init", "not started");
    // The address tells a device that came back from the one the entry was made of.
    const auto found = std::ranges::find_if(plugged_, [&](const Plugged& plugged) {
        const DeviceEntry& own = plugged.connection->entry();
        return own.deviceAddress == entry.deviceAddress &&
               std::strcmp(own.deviceId, entry.deviceId) == 0;
    });
    if (found == plugged_.end())
        return failWith(libusbk::kDeviceNotConnected);
    forgetOldest(pools_);  // which know their handles
    forgetOldest(handles_);
    HandleObject& object = handles_.emplace_back();
    object.connection = found->connection;
    object.connection->device().opened();
    *handle = opaque(&object);
    return true;
}

bool VirtualUsbBus::close(libusbk::UsbHandle* handle) {
    HandleObject* const object = openHandle(handle, "UsbK_Free");
    if (object == nullptr)
        return false;
    if (object->connection->abandonAll(object->opening))
        misuse("UsbK_Free", "a transfer is under way");
    object->live = false;
    return true;
}

bool VirtualUsbBus::claim(libusbk::UsbHandle* handle, std::uint8_t number) {
    HandleObject* const object = openHandle(handle, "UsbK_ClaimInterface");
    if (object == nullptr || isToFail(UsbOperation::kClaim))
        return false;
    if (number != 0)
        return failWith(libusbk::kNoMoreItems);
    if (object->connection->isCut())
        return failWith(libusbk::kDeviceNotConnected);
    bool twice = false;
    if (object->connection->claim(object->opening, twice))
        return true;
    if (twice)
        return misuse("UsbK_ClaimInterface", "the handle has claimed the interface already");
    return failWith(libusbk::kBusy);
}

bool VirtualUsbBus::release(libusbk::UsbHandle* handle, std::uint8_t number) {
    HandleObject* const object = openHandle(handle, "UsbK_ReleaseInterface");
    if (object == nullptr)
        return false;
    if (number != 0)
        return failWith(libusbk::kNoMoreItems);
    if (!object->connection->release(object->opening))
        return misuse("UsbK_ReleaseInterface", "the interface was not claimed");
    return true;
}

bool VirtualUsbBus::transfer(libusbk::UsbHandle* handle, const UsbRequest& request,
                             std::uint32_t* transferred, libusbk::OverlappedSlot* slot,
                             const char* name) {
    HandleObject* const object = openHandle(handle, name);
    if (object == nullptr)
        return false;
    const bool forth = request.out != nullptr && isOut(request.endpoint);
    const bool back = request.in != nullptr && isIn(request.endpoint);
    if (!forth && !back)
        return misuse(name, "no such pipe in this direction, or no buffer");
    if (request.length == 0)
        return misuse(name, "a transfer of no bytes");

    UsbConnection& connection = *object->connection;
    UsbTransferSlot own;
    UsbTransferSlot* target = &own;
    if (slot != nullptr) {
        SlotObject* const taken = takenSlot(slot, name);
        if (taken == nullptr)
            return false;
        if (taken->pool->handle != object)
            return misuse(name, "the slot belongs to another handle");
        target = &taken->transfer;
    }
    switch (connection.start(*target, object->opening, request, slot != nullptr && deferred_)) {
        case UsbTransferSlot::State::kReady:
            return misuse(name, "the slot was not made ready again");
        case UsbTransferSlot::State::kUnderWay:
            if (slot != nullptr) {
                if (transferred != nullptr)
                    *transferred = 0;
                return failWith(libusbk::kIoPending);
            }
            connection.wait(own, kLimitWithoutSlot);
            if (own.code == libusbk::kCancelled)
                own.code = libusbk::kSemaphoreTimeout;
            break;
        case UsbTransferSlot::State::kEnded:
            break;
    }
    if (transferred != nullptr)
        *transferred = target->moved;
    return target->code == libusbk::kNoError || failWith(target->code);
}

bool VirtualUsbBus::reset(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
    HandleObject* const object = openPipe(handle, endpoint, "UsbK_ResetPipe");
    if (object == nullptr)
        return false;
    const std::uint32_t obstacle = object->connection->makeReady(object->opening);
    if (obstacle != libusbk::kNoError)
        return failWith(obstacle);
    object->connection->device().hostResets(endpoint);
    return true;
}

bool VirtualUsbBus::flush(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
    HandleObject* const object = openPipe(handle, endpoint, "UsbK_FlushPipe");
    if (object == nullptr)
        return false;
    if (isOut(endpoint))
        return true;
    const std::uint32_t obstacle = object->connection->makeReady(object->opening);
    if (obstacle != libusbk::kNoError)
        return failWith(obstacle);
    return object->connection->device().hostFlushes(endpoint) || failWith(libusbk::kGeneralFailure);
}

bool VirtualUsbBus::interrupt(libusbk::UsbHandle* handle) {
    HandleObject* const object = openHandle(handle, "UsbK_Interrupt");
    if (object == nullptr)
        return false;
    object->connection->interrupt(object->opening);
    return true;
}

bool VirtualUsbBus::initPool(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle,
                             std::int32_t count) {
    HandleObject* const object = openHandle(handle, "OvlK_Init");
    if (object == nullptr || isToFail(UsbOperation::kPoolInit))
        return false;
    if (count <= 0)
        return misuse("OvlK_Init", "a pool without slots");
    const std::lock_guard guard(lock_);
    PoolObject& made = pools_.emplace_back();
    made.handle = object;
    made.members.resize(static_cast<std::size_t>(count));
    for (SlotObject& slot : made.members)
        slot.pool = &made;
    *pool = opaque(&made);
    return true;
}

bool VirtualUsbBus::freePool(libusbk::OverlappedPool* pool) {
    PoolObject* const object = objectOf<PoolObject>(pool);
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("OvlK_Free", "no such pool");
    for (SlotObject& slot : object->members) {
        if (object->handle->connection->abandon(slot.transfer))
            misuse("OvlK_Free", "a transfer is under way");
        slot.taken = false;
    }
    object->live = false;
    return true;
}

bool VirtualUsbBus::acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool* pool) {
    PoolObject* const object = objectOf<PoolObject>(pool);
    if (isToFail(UsbOperation::kSlotAcquire))
        return false;
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("OvlK_Acquire", "no such pool");
    for (SlotObject& candidate : object->members) {
        if (candidate.taken)
            continue;
        candidate.taken = true;
        object->handle->connection->reuse(candidate.transfer);
        *slot = opaque(&candidate);
        return true;
    }
    return failWith(libusbk::kNoMoreItems);
}

bool VirtualUsbBus::releaseSlot(libusbk::OverlappedSlot* slot) {
    SlotObject* const object = takenSlot(slot, "OvlK_Release");
    if (object == nullptr)
        return false;
    if (object->pool->handle->connection->abandon(object->transfer))
        misuse("OvlK_Release", "a transfer is under way");
    object->taken = false;
    return true;
}

bool VirtualUsbBus::reuse(libusbk::OverlappedSlot* slot) {
    SlotObject* const object = takenSlot(slot, "OvlK_ReUse");
    if (object == nullptr)
        return false;
    if (!object->pool->handle->connection->reuse(object->transfer))
        return misuse("OvlK_ReUse", "a transfer is under way", libusbk::kBusy);
    return true;
}

bool VirtualUsbBus::waitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                                 std::uint32_t* transferred) {
    SlotObject* const object = takenSlot(slot, "OvlK_WaitOrCancel");
    if (object == nullptr)
        return false;
    UsbTransferSlot& transfer = object->transfer;
    if (!object->pool->handle->connection->wait(transfer, std::chrono::milliseconds(timeoutMs)))
        return misuse("OvlK_WaitOrCancel", "no transfer was started");
    if (transferred != nullptr)
        *transferred = transfer.moved;
    return transfer.code == libusbk::kNoError || failWith(transfer.code);
}

}  // namespace simulator
