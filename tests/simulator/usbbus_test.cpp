#include "simulator/virtualusbbus.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

#include "wirehost.h"

namespace simulator {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// What the hot-plug callback was told. There is one at a time, as a callback knows no context.
class Events {
  public:
    Events() { current = this; }
    ~Events() { current = nullptr; }
    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    static void record(libusbk::Monitor*, const libusbk::DeviceEntry* entry, std::int32_t kind) {
        Events& self = *current;
        std::unique_lock lock(self.lock_);
        const char* const sign = kind == libusbk::kArrival ? "+" : "-";
        self.told_.push_back(sign + std::string(std::strrchr(entry->deviceId, '\\') + 1));
        self.changed_.notify_all();
        self.changed_.wait(lock, [&] { return !self.held_; });
    }

    // The first `count` events, once they have come.
    std::vector<std::string> await(std::size_t count) {
        std::unique_lock lock(lock_);
        changed_.wait_for(lock, 10s, [&] { return told_.size() >= count; });
        return told_;
    }
    // Keeps the callback from returning, or lets it go.
    void hold(bool held) {
        const std::lock_guard guard(lock_);
        held_ = held;
        changed_.notify_all();
    }

  private:
    static inline std::atomic<Events*> current = nullptr;

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> told_;
    bool held_ = false;
};

void put(char (&field)[libusbk::kTextSize], std::string_view text) {
    text.copy(field, libusbk::kTextSize - 1);
}

libusbk::Monitor* watch(std::uint32_t flags, const char* deviceId) {
    libusbk::MonitorParameters parameters{};
    parameters.flags = flags;
    parameters.callback = Events::record;
    put(parameters.pattern.deviceId, deviceId);
    libusbk::Monitor* monitor = nullptr;
    EXPECT_TRUE(libusbkTable().HotK_Init(&monitor, &parameters));
    return monitor;
}

class UsbBus : public UsbTest {
  protected:
    std::shared_ptr<VirtualUsbDevice> newDevice() { return std::make_shared<VirtualUsbDevice>(); }

    const LibusbkTable& usb = libusbkTable();
};

TEST_F(UsbBus, ReportsArrivalsAndRemovalsInOrder) {
    Events events;
    bus.plug("1", newDevice());
    bus.plug("2", newDevice(), {0x1234, 0x9999});
    libusbk::Monitor* const monitor = watch(libusbk::kReportConnected, "USB\\VID_1234&PID_5678\\*");
    bus.plug("3", newDevice());
    bus.unplug("1");
    bus.plug("1", newDevice());
    bus.plug("1", newDevice());  // draws the old one first
    bus.unplug("2");             // is of no interest
    bus.unplug("nowhere");
    bus.unplug("3");
    EXPECT_THAT(events.await(7), ElementsAre("+1", "+3", "-1", "+1", "-1", "+1", "-3"));
    EXPECT_TRUE(usb.HotK_Free(monitor));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNoError);

    // One that did not ask for the connected devices hears nothing of their removal.
    libusbk::Monitor* const other = watch(0, "");
    bus.unplug("1");
    bus.plug("4", newDevice());
    EXPECT_THAT(events.await(8), ElementsAre("+1", "+3", "-1", "+1", "-1", "+1", "-3", "+4"));
    EXPECT_TRUE(usb.HotK_Free(other));
    bus.unplug("4");
    EXPECT_EQ(events.await(8).size(), 8U);
}

TEST_F(UsbBus, WaitsForARunningCallbackWhenAMonitorEndsAndDropsTheOthers) {
    Events events;
    libusbk::Monitor* const monitor = watch(0, "");
    events.hold(true);
    bus.plug("1", newDevice());
    bus.plug("2", newDevice());
    EXPECT_EQ(events.await(1).size(), 1U);
    // Meanwhile the transfers of other devices go on.
    start();
    EXPECT_EQ(host->rom(memBegin(1)), 0);

    std::atomic<bool> freed = false;
    std::thread ender([&] {
        usb.HotK_Free(monitor);
        freed = true;
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(freed);
    events.hold(false);
    ender.join();
    EXPECT_EQ(events.await(1).front(), "+1");
}

TEST_F(UsbBus, RefusesToEndAMonitorWithinItsOwnCallback) {
    static std::atomic<bool> called;
    called = false;
    libusbk::MonitorParameters parameters{};
    parameters.callback = [](libusbk::Monitor* own, const libusbk::DeviceEntry*, std::int32_t) {
        EXPECT_FALSE(libusbkTable().HotK_Free(own));
        EXPECT_EQ(libusbkTable().LibK_LastError(), libusbk::kInvalidParameter);
        called = true;
        called.notify_all();
    };
    libusbk::Monitor* monitor = nullptr;
    ASSERT_TRUE(usb.HotK_Init(&monitor, &parameters));
    bus.plug("1", newDevice());
    called.wait(false);
    EXPECT_TRUE(usb.HotK_Free(monitor));
    expectedMisuse = {"HotK_Free: called within the monitor's own callback"};
}

TEST_F(UsbBus, ListsAndOpensWhatIsConnected) {
    const std::string id = bus.plug("0000:00:14.0-1.1", newDevice());
    EXPECT_EQ(id, "USB\\VID_1234&PID_5678\\0000:00:14.0-1.1");
    bus.plug("2", newDevice(), {0x1234, 0x5678, 0});

    libusbk::DevicePattern pattern{};
    put(pattern.deviceId, "USB\\VID_1234&PID_5678\\2");
    put(pattern.classGuid, "*");
    libusbk::DeviceList* list = nullptr;
    ASSERT_TRUE(usb.LstK_InitEx(&list, 0, &pattern));
    const libusbk::DeviceEntry* entry = nullptr;
    EXPECT_FALSE(usb.LstK_FindByVidPid(list, 0x1234, 0x5679, &entry));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNoMoreItems);
    ASSERT_TRUE(usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry));
    EXPECT_EQ(entry->driverId, 0);
    EXPECT_STREQ(entry->deviceId, "USB\\VID_1234&PID_5678\\2");

    libusbk::UsbHandle* handle = nullptr;
    ASSERT_TRUE(usb.UsbK_Init(&handle, entry));
    EXPECT_EQ(bus.openHandles(), 1U);
    EXPECT_TRUE(usb.UsbK_Free(handle));
    EXPECT_EQ(bus.openHandles(), 0U);
    // The entry is of the device that has left, not of the one that has come since.
    bus.unplug("2");
    EXPECT_FALSE(usb.UsbK_Init(&handle, entry));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kDeviceNotConnected);
    bus.plug("2", newDevice());
    EXPECT_FALSE(usb.UsbK_Init(&handle, entry));
    EXPECT_TRUE(usb.LstK_Free(list));
}

TEST_F(UsbBus, FailsOperationsAsTold) {
    bus.fail(UsbOperation::Open, libusbk::kInvalidFunction, 1);
    bus.fail(UsbOperation::Claim, libusbk::kBusy);
    bus.fail(UsbOperation::PoolInit, libusbk::kNotEnoughMemory, 1, 1);
    bus.fail(UsbOperation::SlotAcquire, libusbk::kNoMoreItems, 2, 1);
    bus.fail(UsbOperation::List, libusbk::kNotEnoughMemory, 1, 1);
    bus.fail(UsbOperation::Monitor, libusbk::kGeneralFailure);
    start();  // one pool, two slots
    libusbk::DeviceList* list = nullptr;
    const libusbk::DevicePattern pattern{};
    EXPECT_FALSE(usb.LstK_InitEx(&list, 0, &pattern));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNotEnoughMemory);
    ASSERT_TRUE(usb.LstK_InitEx(&list, 0, &pattern));
    const libusbk::DeviceEntry* entry = nullptr;
    ASSERT_TRUE(usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry));
    libusbk::UsbHandle* handle = nullptr;
    EXPECT_FALSE(usb.UsbK_Init(&handle, entry));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kInvalidFunction);
    EXPECT_TRUE(usb.LstK_Free(list));
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 0, false));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    libusbk::OverlappedPool* pool = nullptr;
    EXPECT_FALSE(usb.OvlK_Init(&pool, host->handle, 1, 0));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNotEnoughMemory);
    libusbk::OverlappedSlot* slot = nullptr;
    EXPECT_FALSE(usb.OvlK_Acquire(&slot, host->pool));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNoMoreItems);
    libusbk::Monitor* monitor = nullptr;
    libusbk::MonitorParameters parameters{};
    EXPECT_FALSE(usb.HotK_Init(&monitor, &parameters));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kGeneralFailure);

    host.reset();
    binding.reset();
    bus.fail(UsbOperation::Startup, libusbk::kAccessDenied);
    binding = std::make_unique<LibusbkBinding>();
    EXPECT_FALSE(LibusbkBinding::isBound());
}

TEST_F(UsbBus, LetsOneHandleHaveTheInterface) {
    const ByteVector sync = record(kSync, 0);
    startBurner();
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 1, false));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kNoMoreItems);
    auto other = std::make_unique<WireHost>(deviceId, false);
    EXPECT_FALSE(usb.UsbK_ClaimInterface(other->handle, 0, false));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    EXPECT_EQ(other->send(kCommandOut, sync).code, libusbk::kBusy);
    EXPECT_FALSE(usb.UsbK_ResetPipe(other->handle, kCommandOut));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 0, false));
    EXPECT_EQ(host->command(sync), "0/4");

    // The first use of a pipe takes the interface too, and keeps it until it is given up.
    host.reset();
    EXPECT_EQ(other->command(sync), "0/4");
    host = std::make_unique<WireHost>(deviceId, false);
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 0, false));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    EXPECT_TRUE(usb.UsbK_ClaimInterface(other->handle, 0, false));
    EXPECT_TRUE(usb.UsbK_ReleaseInterface(other->handle, 0, false));
    EXPECT_TRUE(usb.UsbK_ResetPipe(host->handle, kCommandOut));
    EXPECT_EQ(other->send(kCommandOut, sync).code, libusbk::kBusy);
    host.reset();
    EXPECT_EQ(other->command(sync), "0/4");
    expectedMisuse = {
        "UsbK_ClaimInterface: the handle has claimed the interface already",
        "a transfer with the burner image without a claim of the interface",
    };
}

TEST_F(UsbBus, KeepsATransferPendingUntilAnAnswerComes) {
    startBurner();
    std::array<std::uint8_t, 16> answer{};
    std::uint32_t count = 99;
    EXPECT_FALSE(
        usb.UsbK_ReadPipe(host->handle, kCommandIn, answer.data(), 16, &count, host->inSlot));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kIoPending);
    EXPECT_EQ(count, 0U);
    std::thread sender([&] { host->send(kCommandOut, record(kSync, 0)); });
    EXPECT_TRUE(usb.OvlK_WaitOrCancel(host->inSlot, 10000, &count));
    sender.join();
    EXPECT_EQ(count, 16U);
    EXPECT_EQ(answer[4], kSync);

    bus.deferTransfers(true);
    EXPECT_TRUE(usb.OvlK_ReUse(host->outSlot));
    const ByteVector sync = record(kSync, 0);
    EXPECT_FALSE(
        usb.UsbK_WritePipe(host->handle, kCommandOut, sync.data(), 16, &count, host->outSlot));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kIoPending);
    EXPECT_TRUE(usb.OvlK_WaitOrCancel(host->outSlot, 0, &count));
    EXPECT_EQ(count, 16U);
    EXPECT_EQ(host->response(kCommandIn), "0/4");

    // Without a slot the transfer ends inside the call, one way or the other.
    EXPECT_TRUE(usb.UsbK_WritePipe(host->handle, kCommandOut, sync.data(), 16, &count, nullptr));
    EXPECT_TRUE(usb.UsbK_ReadPipe(host->handle, kCommandIn, answer.data(), 16, &count, nullptr));
    EXPECT_EQ(count, 16U);
    EXPECT_FALSE(usb.UsbK_ReadPipe(host->handle, kCommandIn, answer.data(), 16, &count, nullptr));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kSemaphoreTimeout);
    EXPECT_EQ(count, 0U);
}

TEST_F(UsbBus, WakesAReaderWhenAnotherThreadsWriteBringsAnAnswerForLater) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::lateAnswer(50ms)});
    std::thread sender([&] {
        std::this_thread::sleep_for(20ms);  // lets the reader begin its wait
        host->send(kCommandOut, record(kSync, 0));
    });
    const auto began = Clock::now();
    EXPECT_EQ(host->response(kCommandIn, 30000), "0/4");
    EXPECT_LT(Clock::now() - began, 10s);
    sender.join();
}

// What ends a wait from outside, and the code that it ends with then and ever after.
struct Ending {
    void (*end)(VirtualUsbBus&, WireHost&, const std::string& port);
    std::uint32_t code;
};

class UsbBusEnding : public UsbBus, public testing::WithParamInterface<Ending> {};

TEST_P(UsbBusEnding, EndsAWaitAtOnceAndAllLaterTransfers) {
    startBurner();
    std::uint32_t count = 0;
    const ByteVector sync = record(kSync, 0);

    // What has completed before keeps its result, though nobody has waited for it yet.
    bus.deferTransfers(true);
    usb.UsbK_WritePipe(host->handle, kCommandOut, sync.data(), 16, &count, host->outSlot);

    std::thread ender([&] {
        std::this_thread::sleep_for(20ms);
        GetParam().end(bus, *host, kPort);
    });
    const auto began = Clock::now();
    const Moved cut = host->receive(kDataIn, 16, 60000);
    EXPECT_EQ(cut.code, GetParam().code);
    EXPECT_EQ(cut.count, 0U);
    EXPECT_LT(Clock::now() - began, 10s);
    ender.join();

    EXPECT_TRUE(usb.OvlK_WaitOrCancel(host->outSlot, 0, &count));
    EXPECT_EQ(count, 16U);
    EXPECT_EQ(host->send(kCommandOut, sync).code, GetParam().code);
    EXPECT_EQ(host->receive(kCommandIn, 16).code, GetParam().code);
    EXPECT_FALSE(usb.UsbK_WritePipe(host->handle, kCommandOut, sync.data(), 16, &count, nullptr));
    EXPECT_EQ(usb.LibK_LastError(), GetParam().code);
    EXPECT_FALSE(usb.UsbK_ResetPipe(host->handle, kDataOut));
    EXPECT_EQ(usb.LibK_LastError(), GetParam().code);
    EXPECT_FALSE(usb.UsbK_FlushPipe(host->handle, kDataIn));
    EXPECT_EQ(usb.LibK_LastError(), GetParam().code);
    EXPECT_TRUE(usb.UsbK_FlushPipe(host->handle, kDataOut));
    EXPECT_THAT(device->resets(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ways, UsbBusEnding,
                         testing::Values(Ending{[](VirtualUsbBus&, WireHost& host,
                                                   const std::string&) {
                                                    host.usb.UsbK_Interrupt(host.handle);
                                                },
                                                libusbk::kOperationAborted},
                                         Ending{[](VirtualUsbBus& bus, WireHost&,
                                                   const std::string& port) { bus.unplug(port); },
                                                libusbk::kDeviceNotConnected}));

TEST_F(UsbBus, InterruptsOneHandleAndNotTheDevice) {
    startBurner();
    usb.UsbK_Interrupt(host->handle);
    EXPECT_EQ(host->send(kCommandOut, record(kSync, 0)).code, libusbk::kOperationAborted);
    reopen(true);
    EXPECT_EQ(host->command(record(kSync, 0)), "0/4");
    // What leaves takes everything along but the flash.
    bus.unplug(kPort);
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 0, false));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kDeviceNotConnected);
    EXPECT_FALSE(usb.UsbK_ResetPipe(host->handle, kCommandIn));
}

TEST_F(UsbBus, RecordsTheMisuseOfSlots) {
    startBurner();
    std::array<std::uint8_t, 16> buffer{};
    std::uint32_t count = 0;
    const auto read = [&] {
        return usb.UsbK_ReadPipe(host->handle, kCommandIn, buffer.data(), 16, &count, host->inSlot);
    };
    EXPECT_FALSE(usb.OvlK_WaitOrCancel(host->inSlot, 0, &count));
    read();
    EXPECT_FALSE(usb.OvlK_ReUse(host->inSlot));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    EXPECT_FALSE(read());
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kInvalidParameter);
    usb.OvlK_WaitOrCancel(host->inSlot, 0, &count);
    EXPECT_FALSE(read());  // no ReUse in between

    auto other = std::make_unique<WireHost>(deviceId, false);
    EXPECT_FALSE(
        usb.UsbK_ReadPipe(host->handle, kCommandIn, buffer.data(), 16, &count, other->inSlot));
    other.reset();
    usb.OvlK_ReUse(host->outSlot);
    usb.UsbK_ReadPipe(host->handle, kDataIn, buffer.data(), 16, &count, host->outSlot);
    EXPECT_TRUE(usb.OvlK_Release(host->outSlot));
    EXPECT_FALSE(usb.OvlK_Release(host->outSlot));
    EXPECT_TRUE(usb.OvlK_Acquire(&host->outSlot, host->pool));
    EXPECT_FALSE(usb.OvlK_Release(nullptr));

    usb.OvlK_ReUse(host->inSlot);
    EXPECT_FALSE(
        usb.UsbK_ReadPipe(host->handle, kDataOut, buffer.data(), 16, &count, host->inSlot));
    EXPECT_FALSE(usb.UsbK_WritePipe(host->handle, kDataOut, buffer.data(), 0, &count, nullptr));
    EXPECT_FALSE(usb.UsbK_FlushPipe(host->handle, 0x01));
    expectedMisuse = {
        "OvlK_WaitOrCancel: no transfer was started",
        "OvlK_ReUse: a transfer is under way",
        "UsbK_ReadPipe: the slot was not made ready again",
        "UsbK_ReadPipe: the slot was not made ready again",
        "UsbK_ReadPipe: the slot belongs to another handle",
        "OvlK_Release: a transfer is under way",
        "OvlK_Release: no slot that was acquired",
        "OvlK_Release: no slot that was acquired",
        "UsbK_ReadPipe: no such pipe in this direction, or no buffer",
        "UsbK_WritePipe: a transfer of no bytes",
        "UsbK_FlushPipe: no such pipe",
    };
}

TEST_F(UsbBus, RecordsWhatIsFreedTwiceTooEarlyOrNotAtAll) {
    start();
    const std::string id = deviceId;
    WireHost& first = *host;
    std::array<std::uint8_t, 16> buffer{};
    std::uint32_t count = 0;
    usb.UsbK_ReadPipe(first.handle, kCommandIn, buffer.data(), 16, &count, first.inSlot);
    usb.UsbK_ReadPipe(first.handle, kDataIn, buffer.data(), 16, &count, first.outSlot);
    EXPECT_TRUE(usb.OvlK_Free(first.pool));
    EXPECT_TRUE(usb.OvlK_Init(&first.pool, first.handle, 2, 0));
    EXPECT_TRUE(usb.OvlK_Acquire(&first.inSlot, first.pool));
    EXPECT_TRUE(usb.OvlK_Acquire(&first.outSlot, first.pool));
    usb.UsbK_ReadPipe(first.handle, kCommandIn, buffer.data(), 16, &count, first.inSlot);
    EXPECT_TRUE(usb.UsbK_Free(first.handle));
    EXPECT_FALSE(usb.OvlK_WaitOrCancel(first.inSlot, 0, &count));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kOperationAborted);
    // Pools may outlive their handle. The host frees the handle again, its pool properly.
    host.reset();

    libusbk::DeviceList* list = nullptr;
    libusbk::DeviceList* leaked = nullptr;
    const libusbk::DevicePattern pattern{};
    usb.LstK_InitEx(&list, 0, &pattern);
    usb.LstK_InitEx(&leaked, 0, &pattern);
    const libusbk::DeviceEntry* entry = nullptr;
    usb.LstK_FindByVidPid(leaked, 0x1234, 0x5678, &entry);
    libusbk::UsbHandle* handle = nullptr;
    libusbk::OverlappedPool* pool = nullptr;
    EXPECT_TRUE(usb.UsbK_Init(&handle, entry));
    EXPECT_TRUE(usb.OvlK_Init(&pool, handle, 1, 0));
    EXPECT_FALSE(usb.UsbK_ReleaseInterface(handle, 0, false));
    usb.LstK_Free(list);
    EXPECT_FALSE(usb.LstK_Free(list));
    EXPECT_FALSE(usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry));
    Events events;
    libusbk::Monitor* const monitor = watch(0, "nothing");
    usb.HotK_Free(monitor);
    EXPECT_FALSE(usb.HotK_Free(monitor));
    watch(0, "nothing");
    binding.reset();
    expectedMisuse = {
        "OvlK_Free: a transfer is under way",
        "OvlK_Free: a transfer is under way",
        "UsbK_Free: a transfer is under way",
        "UsbK_Free: no open handle",
        "UsbK_ReleaseInterface: the interface was not claimed",
        "LstK_Free: no such list",
        "LstK_FindByVidPid: no such list",
        "HotK_Free: no such monitor",
        "LibK_Shutdown: a monitor was not freed",
        "LibK_Shutdown: a device list was not freed",
        "LibK_Shutdown: a handle was not freed",
        "LibK_Shutdown: a pool was not freed",
    };
}

TEST_F(UsbBus, ServesSixteenDevicesAtOnceWhileSomeLeave) {
    constexpr int kDevices = 16;
    constexpr std::uint32_t kSize = 64 * 4096;
    const ByteVector image = pattern(kSize);
    UsbDeviceOptions options;
    options.startsInBurner = true;
    std::vector<std::shared_ptr<VirtualUsbDevice>> devices;
    std::atomic<int> written = 0;
    std::atomic<int> lost = 0;
    std::atomic<int> halfWay = 0;
    std::vector<std::thread> workers;
    for (int i = 0; i < kDevices; ++i) {
        devices.push_back(std::make_shared<VirtualUsbDevice>(options));
        const std::string id = bus.plug(std::to_string(i), devices.back());
        workers.emplace_back([&, id, leaves = i % 2 == 1] {
            WireHost worker(id, true);
            EXPECT_EQ(worker.command(record(kFlashWrite, 0, 0, kSize)), "2/1");
            for (std::uint32_t at = 0; at < kSize; at += 4096) {
                const auto from = image.begin() + at;
                if (worker.chunk({from, from + 4096}) == "2/1") {
                    if (leaves && at == kSize / 2)
                        ++halfWay;
                    // Those that are to leave wait for it before their last chunk.
                    if (leaves && at == kSize - 8192) {
                        EXPECT_EQ(worker.receive(kCommandIn, 16, 60000).code,
                                  libusbk::kDeviceNotConnected);
                    }
                    continue;
                }
                EXPECT_EQ(worker.last.code, libusbk::kDeviceNotConnected);
                ++lost;
                return;
            }
            EXPECT_EQ(worker.command(record(kGetResult, 0)), "0/1");
            ++written;
        });
    }
    while (halfWay < kDevices / 2)
        std::this_thread::yield();
    for (int i = 1; i < kDevices; i += 2)
        bus.unplug(std::to_string(i));
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(written, kDevices / 2);
    EXPECT_EQ(lost, kDevices / 2);
    for (int i = 0; i < kDevices; ++i) {
        EXPECT_THAT(devices[static_cast<std::size_t>(i)]->errors(), IsEmpty());
        EXPECT_EQ(devices[static_cast<std::size_t>(i)]->flash().holds(0, image), i % 2 == 0);
    }
}

}  // namespace
}  // namespace simulator
