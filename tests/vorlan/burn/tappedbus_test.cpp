// What only a look at the single calls to libusbK can tell: the waits of the ROM stage and the
// moment of a stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <system_error>
#include <vector>

#include "adminfixture.h"
#include "usbtap.h"
#include "utils/fileutil.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
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
                             {{UsbFaultPoint::kMemBegin, UsbFault::shortAnswer(9)},
                              {UsbFaultPoint::kMemData, UsbFault::romStatus(0x05), 1}});
    ASSERT_TRUE(listener.waitFor("ready 0-1"));

    EXPECT_EQ(device->count(UsbFaultPoint::kMemBegin), 2U);
    EXPECT_EQ(device->count(UsbFaultPoint::kMemData), 4U);
    EXPECT_EQ(device->count(UsbFaultPoint::kMemEnd), 1U);
    EXPECT_GE(tap.first(kMessage) - plugged, 60ms);
    EXPECT_GE(tap.shortest(kMessage, kMessage), 10ms);
    EXPECT_GE(tap.freed - tap.last(kMessage), 100ms);
}

TEST_F(TappedBusTest, AFailedAttemptIsGivenTimeAndThenItsPipeIsEmptied) {
    constexpr int kReply = UsbTap::kEndpoint + EP_ADDR_CMD_RESP_IN;
    const struct {
        UsbFault fault;
        int failed;
        std::vector<int> emptied;         // endpoints
        std::chrono::milliseconds least;  // from the start of what failed
    } cases[] = {
        {UsbFault::shortAnswer(9), kReply, {EP_ADDR_CMD_RESP_IN}, 10ms},
        {UsbFault::silence(), kReply, {EP_ADDR_CMD_RESP_IN}, 210ms},
        {UsbFault::refuseWrite(), kMessage, {EP_ADDR_DATA_RESP_OUT}, 210ms},
        {UsbFault::stallAnswer(), kReply, std::vector<int>(10, EP_ADDR_CMD_RESP_IN), 10ms},
    };
    start();
    for (const auto& c : cases) {
        plug("0-1", {}, {{UsbFaultPoint::kMemBegin, c.fault}});
        ASSERT_TRUE(eventually([&] { return listener.count("ready") + listener.count("error"); }));
        bus.unplug("0-1");
        ASSERT_TRUE(listener.waitFor("remove 0-1"));
        EXPECT_EQ(tap.flushes, c.emptied);
        EXPECT_GE(tap.shortest(c.failed, UsbTap::kFlush + c.emptied[0]), c.least);
        EXPECT_LT(tap.shortest(c.failed, UsbTap::kFlush + c.emptied[0]), 1h) << "none";
        EXPECT_GE(tap.shortest(kMessage, kMessage), 10ms);
        tap.clear();
        listener.clear();
    }
}

// A part of a burner image is never started.
TEST_F(TappedBusTest, AnImageThatCannotBeReadToItsEndIsNotStarted) {
    burnerPath = directory.write("long.img", imageBytes(20'000));
    const fileutil::FilePtr writeOnly = fileutil::openFile("/dev/null", "wb");
    std::shared_ptr<simulator::VirtualUsbDevice> device;
    tap.afterRead = [&] {
        if (device->count(UsbFaultPoint::kMemData) != 1)
            return;
        for (const auto& open : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;  // other threads open and close theirs
            if (std::filesystem::read_symlink(open.path(), gone) == burnerPath)
                ::dup2(::fileno(writeOnly.get()), std::stoi(open.path().filename()));
        }
    };
    device = plug("0-1");
    start();
    ASSERT_TRUE(listener.waitFor("plug 0-1"));
    ASSERT_TRUE(eventually([&] { return listener.session("0-1")->workerEnded.load(); }));
    EXPECT_EQ(device->count(UsbFaultPoint::kMemEnd), 0U);
    EXPECT_LT(device->downloadedBurner().size(), 20'000U);
    EXPECT_THAT(listener.events(), ElementsAre("plug 0-1"));
    EXPECT_EQ(bus.openHandles(), 0U);
}

TEST_F(TappedBusTest, ForeignDevicesGetNoSessionThoughTheyAreReported) {
    start();
    const auto foreign = std::make_shared<simulator::VirtualUsbDevice>();
    bus.plug("0-1", foreign, {.vendorId = 0x1234, .productId = 0x9999});
    bus.plug("0-2", foreign, {.vendorId = 0x4321, .productId = 0x5678});
    plug("0-3");
    ASSERT_TRUE(listener.waitFor("ready 0-3"));
    EXPECT_EQ(foreign->traffic(), 0U);
    EXPECT_EQ(listener.count("plug"), 1U);
}

TEST_F(TappedBusTest, NoBurnAfterAStopBehindTheLastMessage) {
    std::atomic<bool> ended = false;
    std::atomic<bool> stopSeen = false;
    const auto device = plug("0-1");
    tap.afterRead = [&] {
        if (device->count(UsbFaultPoint::kMemEnd) == 0)
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
    bus.fail(simulator::UsbOperation::kSlotAcquire, libusbk::kNoMoreItems);
    start();
    std::shared_ptr<simulator::VirtualUsbDevice> device;
    const Output output = outputOf([&] {
        device = plug("0-1", {}, {{UsbFaultPoint::kMemData, UsbFault::shortWrite(5)}});
        EXPECT_TRUE(listener.waitFor("ready 0-1"));
    });
    const std::vector<std::uint8_t> downloaded = device->downloadedBurner();
    EXPECT_EQ(std::string(downloaded.begin(), downloaded.end()), burner);
    EXPECT_EQ(device->count(UsbFaultPoint::kMemData), 4U);
    EXPECT_EQ(occurrences(output.traced, "WritePipe 0x4 failed (retries = 0), errorCode = "), 1U);
    EXPECT_EQ(occurrences(output.traced, "ReadPipe"), 0U);
    EXPECT_TRUE(tap.flushes.empty());
}

}  // namespace
