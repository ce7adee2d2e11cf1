#include "vorlan/burn/burnadmin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "adminbench.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;
using simulator::FaultRule;
using testing::ElementsAre;

class BurnAdminTest : public AdminBench {
  protected:
    // Burns one small image into each device that gets ready.
    void burnForReal(std::size_t size = 20'000) {
        image = imageBytes(size);
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

    std::string image;
};

TEST_F(BurnAdminTest, ADevicesRoadFromArrivalToRemoval) {
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

TEST_F(BurnAdminTest, ASeventeenthDeviceIsLeftAloneUntilItComesAnew) {
    start();
    for (std::size_t i = 1; i <= 16; ++i)
        plug(port(i));
    ASSERT_TRUE(listener.waitForCount("plug", 16));
    const auto late = plug("0-17");
    bus.unplug("0-3");
    ASSERT_TRUE(listener.waitFor("remove 0-3"));
    EXPECT_EQ(BurnAdmin::peekInstance()->getSessionCount(), 15U);
    EXPECT_EQ(late->traffic(), 0U);

    bus.unplug("0-17");
    plug("0-17");
    EXPECT_TRUE(listener.waitFor("ready 0-17"));
}

TEST_F(BurnAdminTest, ForeignAndBrokenDevicesGetNoSession) {
    start();
    auto foreign = std::make_shared<simulator::VirtualUsbDevice>();
    bus.plug("0-1", foreign, {.vendorId = 0x1234, .productId = 0x9999});
    bus.fail(simulator::UsbOperation::Open, libusbk::kAccessDenied);
    plug("0-2");
    plug("0-3");
    ASSERT_TRUE(listener.waitFor("ready 0-3"));
    bus.unplug("0-2");
    bus.unplug("0-3");
    ASSERT_TRUE(listener.waitFor("remove 0-3"));
    EXPECT_THAT(listener.events(),
                ElementsAre("plug 0-3", "ready 0-3", "burned 0-3", "remove 0-3"));
    EXPECT_EQ(foreign->traffic(), 0U);
    EXPECT_FALSE(BurnAdmin::peekInstance()->Burn_Session_Remove("nobody"));
}

TEST_F(BurnAdminTest, RemovalEndsADownloadAndABurnAtOnce) {
    burnForReal();
    start();
    auto inRom = std::make_shared<simulator::VirtualUsbDevice>();
    inRom->addFault({FaultPoint::MemData, Fault::swallow(), 1, FaultRule::kAlways});
    auto inFlash = std::make_shared<simulator::VirtualUsbDevice>();
    inFlash->addFault({FaultPoint::Chunk, Fault::silence(), 2, FaultRule::kAlways});
    devices.insert(devices.end(), {inRom, inFlash});
    bus.plug("0-1", inRom);
    bus.plug("0-2", inFlash);
    while (inRom->count(FaultPoint::MemData) < 2 || inFlash->count(FaultPoint::Chunk) < 3)
        std::this_thread::yield();

    const auto start = std::chrono::steady_clock::now();
    bus.unplug("0-1");
    bus.unplug("0-2");
    ASSERT_TRUE(listener.waitFor("remove 0-1"));
    ASSERT_TRUE(listener.waitFor("remove 0-2"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_EQ(bus.openHandles(), 0U);
}

TEST_F(BurnAdminTest, AStopEndsSixteenBurnsInTheTimeOfOneAndANewStartBurnsAgain) {
    burnForReal();
    for (std::size_t i = 1; i <= 16; ++i) {
        const auto device = plug(port(i));
        device->addFault({FaultPoint::Chunk, Fault::silence(), 1, 1000});
    }
    start();
    for (const auto& device : devices)
        while (device->count(FaultPoint::Chunk) < 2)
            std::this_thread::yield();

    const auto stop = std::chrono::steady_clock::now();
    BurnAdmin::destroyInstance();
    EXPECT_LT(std::chrono::steady_clock::now() - stop, 500ms);
    EXPECT_EQ(listener.count("remove"), 16U);
    EXPECT_EQ(listener.count("error"), 0U);
    EXPECT_EQ(BurnAdmin::peekInstance(), nullptr);
    EXPECT_EQ(bus.openHandles(), 0U);
    BurnAdmin::destroyInstance();  // nothing left to destroy

    // The devices are still plugged in, and arrive again.
    listener.clear();
    start();
    EXPECT_TRUE(listener.waitForCount("plug", 16));
}

TEST_F(BurnAdminTest, SixteenAtOnceEachGetTheirOwn) {
    burnForReal(100'000);
    start();
    for (std::size_t i = 1; i <= 16; ++i)
        plug(port(i), {.chunkTime = 500us, .resultTime = 20ms});
    ASSERT_TRUE(listener.waitForCount("burned", 16));
    for (const auto& device : devices)
        EXPECT_TRUE(holdsImage(*device));
}

TEST_F(BurnAdminTest, ComingAndGoingAtRandomMomentsDuringBurnsAndStops) {
    burnForReal();
    std::mt19937 random(20);
    for (int round = 0; round < 3; ++round) {
        start(1);
        std::vector<std::jthread> hands;
        for (std::size_t i = 1; i <= 16; ++i) {
            hands.emplace_back([this, at = port(i), seed = random()](const std::stop_token& stop) {
                std::mt19937 moments(static_cast<unsigned>(seed));
                auto device = std::make_shared<simulator::VirtualUsbDevice>();
                while (!stop.stop_requested()) {
                    device->unplugAtByte(moments() % 40'000);
                    bus.plug(at, device);
                    std::this_thread::sleep_for(std::chrono::microseconds(moments() % 200'000));
                    bus.unplug(at);
                }
                // Whoever comes back at once is at the same port before the worker of the one that
                // left has heard of it, and may get the SYNC that was meant for the other.
                for (const std::string& error : device->errors())
                    EXPECT_EQ(error, "ROM loader: a command record in the ROM stage");
            });
        }
        EXPECT_TRUE(listener.waitForCount("remove", 40));
        BurnAdmin::destroyInstance();
        hands.clear();
        EXPECT_EQ(bus.openHandles(), 0U);
        EXPECT_EQ(listener.count("plug"), listener.count("remove"));
        listener.clear();
    }
}

TEST_F(BurnAdminTest, WithoutHotPlugNothingArrivesAndNothingBreaks) {
    bus.fail(simulator::UsbOperation::Monitor, libusbk::kGeneralFailure);
    plug("0-1");
    start();
    BurnAdmin::destroyInstance();
    EXPECT_TRUE(listener.events().empty());
}

TEST_F(BurnAdminTest, ALibraryThatCannotBeBoundFailsEveryCallWithItsCode) {
    bus.fail(simulator::UsbOperation::Startup, libusbk::kGeneralFailure);
    plug("0-1");
    start();
    EXPECT_FALSE(LibusbkBinding::isBound());
    EXPECT_EQ(libusbkTable().LibK_LastError(), libusbk::kModuleNotFound);
    EXPECT_EQ(vorlan_device_open("USB\\VID_1234&PID_5678\\0-1"), nullptr);
    EXPECT_TRUE(log.contains("An error occured getting the device list. errorCode = 0x0000007e"));
    BurnAdmin::destroyInstance();
    EXPECT_TRUE(listener.events().empty());
}
