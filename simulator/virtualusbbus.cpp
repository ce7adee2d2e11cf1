#include "simulator/virtualusbbus.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include "simulator/errorlist.h"
#include "simulator/usbconnection.h"
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

// What the opaque pointers of the interface stand for. None is deleted before the bus, so that the
// use of a freed one is seen and told.
struct MonitorObject {
    DevicePattern pattern;
    libusbk::HotPlugCallback callback;
    std::set<std::int32_t> reported;  // addresses of devices whose arrival it has been told
    bool live = true;
};

struct ListObject {
    std::vector<DeviceEntry> entries;
    bool live = true;
};

struct HandleObject {
    std::shared_ptr<UsbConnection> connection;
    UsbOpening opening;
    std::atomic<bool> live = true;
};

struct PoolObject;

struct SlotObject {
    PoolObject* pool = nullptr;
    UsbTransferSlot transfer;
    std::atomic<bool> taken = false;
};

struct PoolObject {
    HandleObject* handle;
    std::deque<SlotObject> slots;
    bool live = true;
};

template <typename Object>
struct OpaqueOf;
template <>
struct OpaqueOf<MonitorObject> {
    using Type = libusbk::Monitor;
};
template <>
struct OpaqueOf<ListObject> {
    using Type = libusbk::DeviceList;
};
template <>
struct OpaqueOf<HandleObject> {
    using Type = libusbk::UsbHandle;
};
template <>
struct OpaqueOf<PoolObject> {
    using Type = libusbk::OverlappedPool;
};
template <>
struct OpaqueOf<SlotObject> {
    using Type = libusbk::OverlappedSlot;
};

template <typename Object>
typename OpaqueOf<Object>::Type* opaque(Object* object) {
    return reinterpret_cast<typename OpaqueOf<Object>::Type*>(object);
}

template <typename Object>
Object* objectOf(typename OpaqueOf<Object>::Type* pointer) {
    return reinterpret_cast<Object*>(pointer);
}

}  // namespace

class VirtualUsbBus::Core {
  public:
    Core();
    ~Core();

    std::string plug(const std::string& port, std::shared_ptr<VirtualUsbDevice> device,
                     const UsbIdentity& identity);
    void unplug(const std::string& port);
    bool isPlugged(const std::string& port) const;
    void fail(UsbOperation operation, std::uint32_t code, std::uint32_t skip, std::uint32_t times);
    std::size_t openHandles() const;

    bool startup();
    void shutdown();
    bool initMonitor(libusbk::Monitor** monitor, const libusbk::MonitorParameters& parameters);
    bool freeMonitor(libusbk::Monitor* monitor);
    bool initList(libusbk::DeviceList** list, const DevicePattern& pattern);
    bool findInList(libusbk::DeviceList* list, std::uint16_t vendorId, std::uint16_t productId,
                    const DeviceEntry** entry);
    bool freeList(libusbk::DeviceList* list);
    bool open(libusbk::UsbHandle** handle, const DeviceEntry& entry);
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

    ErrorList errors_;
    std::atomic<bool> deferred_ = false;

  private:
    struct Plugged {
        std::string port;
        std::shared_ptr<UsbConnection> connection;
    };
    struct Event {
        MonitorObject* monitor;
        DeviceEntry entry;
        std::int32_t kind;
    };
    struct Failure {
        UsbOperation operation;
        std::uint32_t code;
        std::uint32_t skip;
        std::uint32_t times;
    };

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
    void report(const DeviceEntry& entry, std::int32_t kind);
    void report(MonitorObject& monitor, const DeviceEntry& entry, std::int32_t kind);
    void runEvents();

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

VirtualUsbBus::Core::Core() : thread_([this] { runEvents(); }) {}

VirtualUsbBus::Core::~Core() {
    {
        const std::lock_guard guard(lock_);
        ending_ = true;
    }
    eventsChanged_.notify_all();
    thread_.join();
}

std::string VirtualUsbBus::Core::plug(const std::string& port,
                                      std::shared_ptr<VirtualUsbDevice> device,
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

void VirtualUsbBus::Core::unplug(const std::string& port) {
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

bool VirtualUsbBus::Core::isPlugged(const std::string& port) const {
    const std::lock_guard guard(lock_);
    return std::ranges::find(plugged_, port, &Plugged::port) != plugged_.end();
}

void VirtualUsbBus::Core::remove(const UsbConnection* connection) {
    const std::lock_guard guard(lock_);
    const auto found = std::ranges::find_if(
        plugged_, [&](const Plugged& p) { return p.connection.get() == connection; });
    if (found == plugged_.end())
        return;
    report(connection->entry(), libusbk::kRemoval);
    plugged_.erase(found);
}

void VirtualUsbBus::Core::report(const DeviceEntry& entry, std::int32_t kind) {
    for (MonitorObject& monitor : monitors_) {
        if (monitor.live && matches(entry, monitor.pattern))
            report(monitor, entry, kind);
    }
}

void VirtualUsbBus::Core::report(MonitorObject& monitor, const DeviceEntry& entry,
                                 std::int32_t kind) {
    // A removal is told only to those who were told the arrival.
    if (kind == libusbk::kArrival)
        monitor.reported.insert(entry.deviceAddress);
    else if (monitor.reported.erase(entry.deviceAddress) == 0)
        return;
    events_.push_back({&monitor, entry, kind});
    eventsChanged_.notify_all();
}

void VirtualUsbBus::Core::runEvents() {
    std::unique_lock lock(lock_);
    for (;;) {
        eventsChanged_.wait(lock, [&] { return ending_ || !events_.empty(); });
        if (ending_)
            return;
        const Event event = events_.front();
        events_.pop_front();
        reportingTo_ = event.monitor;
        lock.unlock();
        event.monitor->callback(opaque(event.monitor), &event.entry, event.kind);
        lock.lock();
        reportingTo_ = nullptr;
        eventsChanged_.notify_all();
    }
}

void VirtualUsbBus::Core::fail(UsbOperation operation, std::uint32_t code, std::uint32_t skip,
                               std::uint32_t times) {
    const std::lock_guard guard(lock_);
    failures_.push_back({operation, code, skip, times});
}

bool VirtualUsbBus::Core::isToFail(UsbOperation operation) {
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

std::size_t VirtualUsbBus::Core::openHandles() const {
    const std::lock_guard guard(lock_);
    return static_cast<std::size_t>(std::ranges::count_if(
        handles_, [](const HandleObject& handle) { return handle.live.load(); }));
}

bool VirtualUsbBus::Core::misuse(const char* operation, const char* text, std::uint32_t code) {
    errors_.add(std::string(operation) + ": " + text);
    return failWith(code);
}

HandleObject* VirtualUsbBus::Core::openHandle(libusbk::UsbHandle* handle, const char* operation) {
    HandleObject* const object = objectOf<HandleObject>(handle);
    if (object != nullptr && object->live)
        return object;
    misuse(operation, "no open handle");
    return nullptr;
}

HandleObject* VirtualUsbBus::Core::openPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                                            const char* operation) {
    HandleObject* const object = openHandle(handle, operation);
    if (object == nullptr || isIn(endpoint) || isOut(endpoint))
        return object;
    misuse(operation, "no such pipe");
    return nullptr;
}

SlotObject* VirtualUsbBus::Core::takenSlot(libusbk::OverlappedSlot* slot, const char* operation) {
    SlotObject* const object = objectOf<SlotObject>(slot);
    if (object != nullptr && object->taken)
        return object;
    misuse(operation, "no slot that was acquired");
    return nullptr;
}

bool VirtualUsbBus::Core::startup() {
    if (isToFail(UsbOperation::Startup))
        return false;
    const std::lock_guard guard(lock_);
    if (started_)
        return misuse("LibK_Startup", "twice");
    started_ = true;
    return true;
}

void VirtualUsbBus::Core::shutdown() {
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

bool VirtualUsbBus::Core::initMonitor(libusbk::Monitor** monitor,
                                      const libusbk::MonitorParameters& parameters) {
    if (isToFail(UsbOperation::Monitor))
        return false;
    const std::lock_guard guard(lock_);
    if (!started_ || parameters.callback == nullptr)
        return misuse("HotK_Init", "not started, or no callback");
    MonitorObject& object = monitors_.emplace_back();
    object.pattern = parameters.pattern;
    object.callback = parameters.callback;
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

bool VirtualUsbBus::Core::freeMonitor(libusbk::Monitor* monitor) {
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

bool VirtualUsbBus::Core::initList(libusbk::DeviceList** list, const DevicePattern& pattern) {
    if (isToFail(UsbOperation::List))
        return false;
    const std::lock_guard guard(lock_);
    if (!started_)
        return misuse("LstK_InitEx", "not started");
    ListObject& object = lists_.emplace_back();
    for (const Plugged& plugged : plugged_) {
        if (matches(plugged.connection->entry(), pattern))
            object.entries.push_back(plugged.connection->entry());
    }
    *list = opaque(&object);
    return true;
}

bool VirtualUsbBus::Core::findInList(libusbk::DeviceList* list, std::uint16_t vendorId,
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

bool VirtualUsbBus::Core::freeList(libusbk::DeviceList* list) {
    ListObject* const object = objectOf<ListObject>(list);
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("LstK_Free", "no such list");
    object->live = false;
    std::vector<DeviceEntry>().swap(object->entries);
    return true;
}

bool VirtualUsbBus::Core::open(libusbk::UsbHandle** handle, const DeviceEntry& entry) {
    if (isToFail(UsbOperation::Open))
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
    HandleObject& object = handles_.emplace_back();
    object.connection = found->connection;
    object.connection->device().opened();
    *handle = opaque(&object);
    return true;
}

bool VirtualUsbBus::Core::close(libusbk::UsbHandle* handle) {
    HandleObject* const object = openHandle(handle, "UsbK_Free");
    if (object == nullptr)
        return false;
    if (object->connection->abandonAll(object->opening))
        misuse("UsbK_Free", "a transfer is under way");
    object->live = false;
    return true;
}

bool VirtualUsbBus::Core::claim(libusbk::UsbHandle* handle, std::uint8_t number) {
    HandleObject* const object = openHandle(handle, "UsbK_ClaimInterface");
    if (object == nullptr || isToFail(UsbOperation::Claim))
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

bool VirtualUsbBus::Core::release(libusbk::UsbHandle* handle, std::uint8_t number) {
    HandleObject* const object = openHandle(handle, "UsbK_ReleaseInterface");
    if (object == nullptr)
        return false;
    if (number != 0)
        return failWith(libusbk::kNoMoreItems);
    if (!object->connection->release(object->opening))
        return misuse("UsbK_ReleaseInterface", "the interface was not claimed");
    return true;
}

bool VirtualUsbBus::Core::transfer(libusbk::UsbHandle* handle, const UsbRequest& request,
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
        case UsbTransferSlot::State::Ready:
            return misuse(name, "the slot was not made ready again");
        case UsbTransferSlot::State::UnderWay:
            if (slot != nullptr) {
                if (transferred != nullptr)
                    *transferred = 0;
                return failWith(libusbk::kIoPending);
            }
            connection.wait(own, kLimitWithoutSlot);
            if (own.code == libusbk::kCancelled)
                own.code = libusbk::kSemaphoreTimeout;
            break;
        case UsbTransferSlot::State::Ended:
            break;
    }
    if (transferred != nullptr)
        *transferred = target->moved;
    return target->code == libusbk::kNoError || failWith(target->code);
}

bool VirtualUsbBus::Core::reset(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
    HandleObject* const object = openPipe(handle, endpoint, "UsbK_ResetPipe");
    if (object == nullptr)
        return false;
    const std::uint32_t obstacle = object->connection->makeReady(object->opening);
    if (obstacle != libusbk::kNoError)
        return failWith(obstacle);
    object->connection->device().hostResets(endpoint);
    return true;
}

bool VirtualUsbBus::Core::flush(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
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

bool VirtualUsbBus::Core::interrupt(libusbk::UsbHandle* handle) {
    HandleObject* const object = openHandle(handle, "UsbK_Interrupt");
    if (object == nullptr)
        return false;
    object->connection->interrupt(object->opening);
    return true;
}

bool VirtualUsbBus::Core::initPool(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle,
                                   std::int32_t count) {
    HandleObject* const object = openHandle(handle, "OvlK_Init");
    if (object == nullptr || isToFail(UsbOperation::PoolInit))
        return false;
    if (count <= 0)
        return misuse("OvlK_Init", "a pool without slots");
    const std::lock_guard guard(lock_);
    PoolObject& made = pools_.emplace_back();
    made.handle = object;
    made.slots.resize(static_cast<std::size_t>(count));
    for (SlotObject& slot : made.slots)
        slot.pool = &made;
    *pool = opaque(&made);
    return true;
}

bool VirtualUsbBus::Core::freePool(libusbk::OverlappedPool* pool) {
    PoolObject* const object = objectOf<PoolObject>(pool);
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("OvlK_Free", "no such pool");
    for (SlotObject& slot : object->slots) {
        if (object->handle->connection->abandon(slot.transfer))
            misuse("OvlK_Free", "a transfer is under way");
        slot.taken = false;
    }
    object->live = false;
    return true;
}

bool VirtualUsbBus::Core::acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool* pool) {
    PoolObject* const object = objectOf<PoolObject>(pool);
    if (isToFail(UsbOperation::SlotAcquire))
        return false;
    const std::lock_guard guard(lock_);
    if (object == nullptr || !object->live)
        return misuse("OvlK_Acquire", "no such pool");
    for (SlotObject& candidate : object->slots) {
        if (candidate.taken)
            continue;
        candidate.taken = true;
        object->handle->connection->reuse(candidate.transfer);
        *slot = opaque(&candidate);
        return true;
    }
    return failWith(libusbk::kNoMoreItems);
}

bool VirtualUsbBus::Core::releaseSlot(libusbk::OverlappedSlot* slot) {
    SlotObject* const object = takenSlot(slot, "OvlK_Release");
    if (object == nullptr)
        return false;
    if (object->pool->handle->connection->abandon(object->transfer))
        misuse("OvlK_Release", "a transfer is under way");
    object->taken = false;
    return true;
}

bool VirtualUsbBus::Core::reuse(libusbk::OverlappedSlot* slot) {
    SlotObject* const object = takenSlot(slot, "OvlK_ReUse");
    if (object == nullptr)
        return false;
    if (!object->pool->handle->connection->reuse(object->transfer))
        return misuse("OvlK_ReUse", "a transfer is under way", libusbk::kBusy);
    return true;
}

bool VirtualUsbBus::Core::waitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
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

// The operations by the names of the interface, each handed to the bus that lives.
struct UsbBusTable {
    using Core = VirtualUsbBus::Core;
    static inline std::atomic<Core*> bus = nullptr;

    static std::uint32_t LibK_LastError() { return lastError; }
    static bool LibK_Startup() { return bus.load()->startup(); }
    static void LibK_Shutdown() { bus.load()->shutdown(); }
    static bool HotK_Init(libusbk::Monitor** monitor,
                          const libusbk::MonitorParameters* parameters) {
        return bus.load()->initMonitor(monitor, *parameters);
    }
    static bool HotK_Free(libusbk::Monitor* monitor) { return bus.load()->freeMonitor(monitor); }
    static bool LstK_InitEx(libusbk::DeviceList** list, std::uint32_t /*flags*/,
                            const DevicePattern* pattern) {
        return bus.load()->initList(list, *pattern);
    }
    static bool LstK_FindByVidPid(libusbk::DeviceList* list, std::uint16_t vendorId,
                                  std::uint16_t productId, const DeviceEntry** entry) {
        return bus.load()->findInList(list, vendorId, productId, entry);
    }
    static bool LstK_Free(libusbk::DeviceList* list) { return bus.load()->freeList(list); }
    static bool UsbK_Init(libusbk::UsbHandle** handle, const DeviceEntry* entry) {
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

VirtualUsbBus::VirtualUsbBus() : core_(std::make_unique<Core>()) {
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
