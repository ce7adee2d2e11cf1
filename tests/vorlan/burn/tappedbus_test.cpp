// What only a look at the single calls to libusbK can tell: the waits of the ROM stage and the
// moment of a stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stop_token>
#include <vector>

#include "adminfixture.h"
#include "usbtap.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;
using testing::ElementsAre;

namespace {

constexpr int kMessage = UsbTap::kChunk;  // the ROM loader's messages go where chunks go later

class TappedBusTest : public AdminFixture {
  protected:
    UsbTap tap;
};

TEST_F(TappedBusTest, TheRomGetsItsTimeBeforeAndAfterEachMessage) {
    UsbTap::Clock::time_point plugged;
    listener.plugged = [&](SesHandle) { plugged = UsbTap::Clock::now(); };
    start(60);
    const auto device = plug("0-1", {},
                             {{FaultPoint::MemBegin, Fault::shortAnswer(9)},
                              {FaultPoint::MemData, Fault::romStatus(0x05), 1}});
    ASSERT_TRUE(listener.waitFor("ready 0-1"));

    EXPECT_EQ(device->count(FaultPoint::MemBegin), 2U);
    EXPECT_EQ(device->count(FaultPoint::MemData), 4U);
    EXPECT_EQ(device->count(FaultPoint::MemEnd), 1U);
    EXPECT_GE(tap.first(kMessage) - plugged, 60ms);
    EXPECT_GE(tap.shortest(kMessage, kMessage), 10ms);
    EXPECT_GE(tap.freed - tap.last(kMessage), 100ms);
}

TEST_F(TappedBusTest, NoBurnAfterAStopBehindTheLastMessage) {
    std::atomic<bool> ended = false;
    std::atomic<bool> stopSeen = false;
    const auto device = plug("0-1");
    tap.afterRead = [&] {
        if (device->count(FaultPoint::MemEnd) == 0)
            return;
        // The device has taken MEM_END; the stop comes now.
        ended = true;
        const std::stop_token stop = listener.session("0-1")->worker.get_stop_token();
        stopSeen = eventually([&] { return stop.stop_requested(); });
    };
    start();
    ASSERT_TRUE(eventually([&] { return ended.load(); }));
    BurnAdmin::destroyInstance();
    EXPECT_TRUE(stopSeen);
    EXPECT_EQ(device->downloadedBurner().size(), burner.size());
    EXPECT_THAT(listener.events(), ElementsAre("plug 0-1", "remove 0-1"));
}

TEST_F(TappedBusTest, WithoutASlotAShortWriteIsAFailedAttempt) {
    bus.fail(simulator::UsbOperation::SlotAcquire, libusbk::kNoMoreItems);
    start();
    std::shared_ptr<simulator::VirtualUsbDevice> device;
    const Output output = outputOf([&] {
        device = plug("0-1", {}, {{FaultPoint::MemData, Fault::shortWrite(5)}});
        EXPECT_TRUE(listener.waitFor("ready 0-1"));
    });
    const std::vector<std::uint8_t> downloaded = device->downloadedBurner();
    EXPECT_EQ(std::string(downloaded.begin(), downloaded.end()), burner);
    EXPECT_EQ(device->count(FaultPoint::MemData), 4U);
    EXPECT_EQ(occurrences(output.traced, "WritePipe 0x4 failed (retries = 0), errorCode = "), 1U);
    EXPECT_EQ(occurrences(output.traced, "ReadPipe"), 0U);
    EXPECT_TRUE(tap.flushes.empty());
}

}  // namespace
