// What only a look at the single calls to libusbK can tell: the waits of the ROM stage, the moment
// of a stop, and entries whose texts and numbers disagree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stop_token>
#include <utility>
#include <vector>

#include "adminfixture.h"
#include "vorlan/burn/libusbktable.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;
using testing::ElementsAre;

namespace {

using Time = std::chrono::steady_clock::time_point;

// The bus's operations, with a few of them watched.
class TappedBusTest : public AdminFixture {
  protected:
    TappedBusTest() {
        {
            const LibusbkBinding binding;
            real = libusbkTable();
        }
        tapped = real;
        tapped.HotK_Init = [](libusbk::Monitor** monitor,
                              const libusbk::MonitorParameters* parameters) {
            libusbk::MonitorParameters changed = *parameters;
            callback = std::exchange(changed.callback, hotPlug);
            return real.HotK_Init(monitor, &changed);
        };
        tapped.UsbK_WritePipe = [](libusbk::UsbHandle* handle, std::uint8_t endpoint,
                                   const std::uint8_t* buffer, std::uint32_t length,
                                   std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
            writes.emplace_back(buffer[1], std::chrono::steady_clock::now());
            return real.UsbK_WritePipe(handle, endpoint, buffer, length, transferred, slot);
        };
        tapped.UsbK_ReadPipe = [](libusbk::UsbHandle* handle, std::uint8_t endpoint,
                                  std::uint8_t* buffer, std::uint32_t length,
                                  std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
            const bool done =
                real.UsbK_ReadPipe(handle, endpoint, buffer, length, transferred, slot);
            afterRead();
            return done;
        };
        tapped.UsbK_FlushPipe = [](libusbk::UsbHandle* handle, std::uint8_t endpoint) {
            flushed.push_back(endpoint);
            return real.UsbK_FlushPipe(handle, endpoint);
        };
        tapped.UsbK_Free = [](libusbk::UsbHandle* handle) {
            freed = std::chrono::steady_clock::now();
            return real.UsbK_Free(handle);
        };
        substituteLibusbk(&tapped);
        changeEntry = [](libusbk::DeviceEntry&) {};
        writes.clear();
        flushed.clear();
        afterRead = [] {};
    }

    static void hotPlug(libusbk::Monitor* monitor, const libusbk::DeviceEntry* entry,
                        std::int32_t kind) {
        libusbk::DeviceEntry changed = *entry;
        changeEntry(changed);
        callback(monitor, &changed, kind);
    }

    // The operations are plain functions, so what they work with is static. With one device at a
    // time, its worker alone writes here; the listener's lock makes it visible.
    static inline LibusbkTable real;
    static inline LibusbkTable tapped;
    static inline libusbk::HotPlugCallback callback;
    static inline std::function<void(libusbk::DeviceEntry&)> changeEntry;
    static inline std::vector<std::pair<unsigned, Time>> writes;  // command and beginning
    static inline std::vector<std::uint8_t> flushed;
    static inline std::function<void()> afterRead;
    static inline Time freed;
};

TEST_F(TappedBusTest, TheRomGetsItsTimeBeforeAndAfterEachMessage) {
    Time plugged;
    listener.plugged = [&](SesHandle) { plugged = std::chrono::steady_clock::now(); };
    auto device = std::make_shared<simulator::VirtualUsbDevice>();
    devices.push_back(device);
    device->addFault({FaultPoint::MemBegin, Fault::shortAnswer(9)});
    device->addFault({FaultPoint::MemData, Fault::romStatus(0x05), 1});
    start(60);
    bus.plug("0-1", device);
    ASSERT_TRUE(listener.waitFor("ready 0-1"));

    std::vector<unsigned> commands;
    commands.reserve(writes.size());
    for (const auto& [command, time] : writes)
        commands.push_back(command);
    ASSERT_THAT(commands, ElementsAre(5, 5, 7, 7, 7, 7, 6));
    EXPECT_GE(writes.front().second - plugged, 60ms);
    for (std::size_t i = 1; i < writes.size(); ++i)
        EXPECT_GE(writes[i].second - writes[i - 1].second, 10ms) << i;
    EXPECT_GE(freed - writes.back().second, 100ms);
}

TEST_F(TappedBusTest, NoBurnAfterAStopBehindTheLastMessage) {
    std::atomic<bool> ended = false;
    std::atomic<bool> stopSeen = false;
    afterRead = [&] {
        if (writes.back().first != 6)
            return;
        // The device has taken MEM_END; the stop comes now.
        ended = true;
        const std::stop_token stop = listener.session("0-1")->worker.get_stop_token();
        stopSeen = awaitTrue([&] { return stop.stop_requested(); });
    };
    const auto device = plug("0-1");
    start();
    ASSERT_TRUE(awaitTrue([&] { return ended.load(); }));
    BurnAdmin::destroyInstance();
    EXPECT_TRUE(stopSeen);
    EXPECT_EQ(device->downloadedBurner().size(), burner.size());
    EXPECT_THAT(listener.events(), ElementsAre("plug 0-1", "remove 0-1"));
}

TEST_F(TappedBusTest, WithoutASlotAShortWriteIsAFailedAttempt) {
    bus.fail(simulator::UsbOperation::SlotAcquire, libusbk::kNoMoreItems);
    auto device = std::make_shared<simulator::VirtualUsbDevice>();
    devices.push_back(device);
    device->addFault({FaultPoint::MemData, Fault::shortWrite(5)});
    CapturedOutput output;
    start();
    bus.plug("0-1", device);
    ASSERT_TRUE(listener.waitFor("ready 0-1"));
    output.end();
    const std::vector<std::uint8_t> downloaded = device->downloadedBurner();
    EXPECT_EQ(std::string(downloaded.begin(), downloaded.end()), burner);
    EXPECT_EQ(device->count(FaultPoint::MemData), 4U);
    EXPECT_EQ(occurrences(output.traced, "WritePipe 0x4 failed (retries = 0), errorCode = "), 1U);
    EXPECT_EQ(occurrences(output.traced, "ReadPipe"), 0U);
    EXPECT_TRUE(flushed.empty());
}

TEST_F(TappedBusTest, TheNumbersOfADeviceDecideAndNotItsIdText) {
    changeEntry = [](libusbk::DeviceEntry& entry) {
        const std::string id = entry.deviceId;
        if (id.ends_with("\\0-1"))
            entry.productId = 0x9999;
        if (id.ends_with("\\0-2"))
            entry.vendorId = 0x4321;
    };
    const auto otherProduct = plug("0-1");
    const auto otherVendor = plug("0-2");
    start();
    plug("0-3");
    ASSERT_TRUE(listener.waitFor("ready 0-3"));
    EXPECT_EQ(BurnAdmin::peekInstance()->getSessionCount(), 1U);
    EXPECT_EQ(listener.count("plug"), 1U);
    EXPECT_EQ(otherProduct->traffic(), 0U);
    EXPECT_EQ(otherVendor->traffic(), 0U);
}

}  // namespace
