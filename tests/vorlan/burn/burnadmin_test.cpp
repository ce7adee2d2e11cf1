#include "vorlan/burn/burnadmin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "adminfixture.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;
using testing::ElementsAre;

// Each case with transfers that end inside the call and with such as never do.
class BurnAdminTest : public AdminFixture, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override { bus.deferTransfers(GetParam()); }

    // Burns one small image into each device that gets ready.
    void burnForReal() {
        image = imageBytes(20'000);
        const std::wstring path = text::widen(directory.write("image.bin", image));
        listener.burn = [path](SesHandle session) {
            BurnAgent agent(session->device_id);
            agent.run({{path, 0x1000}}, nullptr, CMD_CODE_FLASH_WRITE);
        };
    }

    bool holdsImage(const simulator::VirtualUsbDevice& device) const {
        const std::vector<std::uint8_t> bytes(image.begin(), image.end());
        return device.flash().holds(0x1000, bytes);
    }

    // Plugs sixteen devices and starts; all get stuck in the middle of their burns.
    void startSixteenBurns() {
        clock.reset();  // they are to stay there
        burnForReal();
        for (std::size_t i = 1; i <= 16; ++i)
            plug(port(i), {},
                 {{UsbFaultPoint::kChunk, UsbFault::silence(), 1, UsbFaultRule::kAlways}});
        start();
        for (const auto& device : devices)
            ASSERT_TRUE(eventually([&] { return device->count(UsbFaultPoint::kChunk) >= 2; }));
    }

    std::string image;
};

INSTANTIATE_TEST_SUITE_P(Transfers, BurnAdminTest, testing::Bool(), [](const auto& test) {
    return std::string(test.param ? "Deferred" : "InTheCall");
});

TEST_P(BurnAdminTest, ADevicesRoadFromArrivalToRemoval) {
    burnForReal();
    const auto early = plug("0-1");  // is there before the operator starts
    start();
    ASSERT_TRUE(listener.waitFor("burned 0-1"));
    EXPECT_TRUE(holdsImage(*early));
    EXPECT_EQ(BurnAdmin::peekInstance()->getSessionCount(), 1U);

    bus.unplug("0-1");
    ASSERT_TRUE(listener.waitFor("remove 0-1"));
    EXPECT_EQ(BurnAdmin::peekInstance()->getSessionCount(), 0U);
    EXPECT_THAT(listener.events(),
                ElementsAre("plug 0-1", "ready 0-1", "burned 0-1", "remove 0-1"));

    // A device that comes back starts over.
    const auto again = plug("0-1");
    ASSERT_TRUE(listener.waitFor("burned 0-1", 2));
    EXPECT_TRUE(holdsImage(*again));
}

TEST_P(BurnAdminTest, ASeventeenthDeviceIsLeftAloneUntilItComesAnew) {
    start();
    for (std::size_t i = 1; i <= 16; ++i)
        plug(port(i));
    ASSERT_TRUE(listener.waitFor("plug", 16));
    const auto late = plug("0-17");
    bus.unplug("0-3");
    ASSERT_TRUE(listener.waitFor("remove 0-3"));
    EXPECT_EQ(BurnAdmin::peekInstance()->getSessionCount(), 15U);
    EXPECT_EQ(late->traffic(), 0U);
    EXPECT_TRUE(log.contains("0-17 gets no burn"));

    bus.unplug("0-17");
    plug("0-17");
    EXPECT_TRUE(listener.waitFor("ready 0-17"));
}

TEST_P(BurnAdminTest, BrokenDevicesGetNoSession) {
    start();
    bus.fail(simulator::UsbOperation::kOpen, libusbk::kAccessDenied);
    plug("0-2");
    plug("0-3");
    ASSERT_TRUE(listener.waitFor("ready 0-3"));
    bus.unplug("0-2");
    bus.unplug("0-3");
    ASSERT_TRUE(listener.waitFor("remove 0-3"));
    EXPECT_THAT(listener.events(),
                ElementsAre("plug 0-3", "ready 0-3", "burned 0-3", "remove 0-3"));
    EXPECT_TRUE(log.contains("no permission to open USB\\VID_1234&PID_5678\\0-2"));
    EXPECT_FALSE(BurnAdmin::peekInstance()->Burn_Session_Remove("nobody"));
}

TEST_P(BurnAdminTest, RemovalEndsADownloadAndABurn) {
    burnForReal();
    start();
    const auto inRom =
        plug("0-1", {}, {{UsbFaultPoint::kMemData, UsbFault::swallow(), 1, UsbFaultRule::kAlways}});
    const auto inFlash =
        plug("0-2", {}, {{UsbFaultPoint::kChunk, UsbFault::silence(), 2, UsbFaultRule::kAlways}});
    ASSERT_TRUE(eventually([&] {
        return inRom->count(UsbFaultPoint::kMemData) >= 2 &&
               inFlash->count(UsbFaultPoint::kChunk) >= 3;
    }));

    bus.unplug("0-1");
    bus.unplug("0-2");
    ASSERT_TRUE(listener.waitFor("remove 0-1"));
    ASSERT_TRUE(listener.waitFor("remove 0-2"));
    EXPECT_EQ(bus.openHandles(), 0U);
}

TEST_P(BurnAdminTest, RemovalEndsEveryWait) {
    clock.reset();  // nobody is to leap over the wait that is cut short here
    start(60'000);
    plug("0-1");
    ASSERT_TRUE(listener.waitFor("plug 0-1"));
    const auto start = std::chrono::steady_clock::now();
    bus.unplug("0-1");
    ASSERT_TRUE(listener.waitFor("remove 0-1"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST_P(BurnAdminTest, AStopEndsSixteenBurnsInTheTimeOfOneAndANewStartBurnsAgain) {
    ASSERT_NO_FATAL_FAILURE(startSixteenBurns());
    // The listener is told of the first one when its worker has ended; by then the others are
    // winding down too.
    listener.removed = [this](SesHandle) {
        if (listener.count("remove") == 1)
            plug("0-17");  // there is a place for it, but nobody may come any more
        if (listener.count("remove") > 0)
            return;
        for (std::size_t i = 1; i <= 16; ++i)
            EXPECT_TRUE(listener.session(port(i))->worker.get_stop_token().stop_requested()) << i;
    };

    const Output output = outputOf([] { BurnAdmin::destroyInstance(); });
    EXPECT_EQ(listener.count("plug"), 16U);
    EXPECT_EQ(listener.count("remove"), 16U);
    EXPECT_EQ(occurrences(output.printed, "alive"), 16U);
    EXPECT_EQ(listener.count("error"), 0U);
    EXPECT_EQ(BurnAdmin::peekInstance(), nullptr);
    EXPECT_EQ(bus.openHandles(), 0U);
    BurnAdmin::destroyInstance();  // nothing left to destroy

    // The devices are still plugged in, and arrive again.
    listener.clear();
    start();
    EXPECT_TRUE(listener.waitFor("plug", 16));
}

TEST_P(BurnAdminTest, WithoutHotPlugOrLibraryNothingArrivesAndNothingBreaks) {
    plug("0-1");
    for (const auto operation :
         {simulator::UsbOperation::kMonitor, simulator::UsbOperation::kStartup}) {
        bus.fail(operation, libusbk::kGeneralFailure);
        start();
        EXPECT_EQ(LibusbkBinding::isBound(), operation == simulator::UsbOperation::kMonitor);
        if (!LibusbkBinding::isBound()) {
            EXPECT_EQ(vorlan_device_open("USB\\VID_1234&PID_5678\\0-1"), nullptr);
            EXPECT_TRUE(log.contains("getting the device list. errorCode = 0x0000007e"));
        }
        BurnAdmin::destroyInstance();
        EXPECT_TRUE(listener.events().empty());
    }
}

TEST_P(BurnAdminTest, AStopInADownloadReportsNothing) {
    clock.reset();  // the download is not to fail before
    for (std::size_t i = 1; i <= 3; ++i)
        plug(port(i), {},
             {{UsbFaultPoint::kMemData, UsbFault::swallow(), 1, UsbFaultRule::kAlways}});
    start();
    for (const auto& device : devices)
        ASSERT_TRUE(eventually([&] { return device->count(UsbFaultPoint::kMemData) >= 2; }));
    BurnAdmin::destroyInstance();
    EXPECT_EQ(listener.count("plug"), 3U);
    EXPECT_EQ(listener.count("remove"), 3U);
    EXPECT_EQ(listener.events().size(), 6U) << testing::PrintToString(listener.events());
}

TEST_P(BurnAdminTest, TheArrivalIsToldBeforeAllElseHoweverLongThatTakes) {
    burnerPath = directory.write("empty.img", "");
    listener.plugged = [](SesHandle) { std::this_thread::sleep_for(50ms); };
    start();
    plug("0-1");
    ASSERT_TRUE(listener.waitFor("error", 1));
    ASSERT_TRUE(listener.waitFor("plug 0-1"));
    EXPECT_THAT(listener.events(),
                ElementsAre("plug 0-1", "error 57 Empty file! path=" + burnerPath + " 0-1"));
}

TEST_P(BurnAdminTest, WithoutAPoolADeviceIsServedAllTheSame) {
    burnForReal();
    bus.fail(simulator::UsbOperation::kPoolInit, libusbk::kNotEnoughMemory);
    start();
    const auto device = plug("0-1");
    ASSERT_TRUE(listener.waitFor("burned 0-1"));
    EXPECT_TRUE(holdsImage(*device));
}
