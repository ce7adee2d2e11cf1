#include "vorlan/burn/vorlan_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "agentfixture.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using testing::ElementsAre;
using testing::Pair;

// With transfers that end only when they are waited for (true), and inside the call where they can.
class VorlanDeviceTest : public AgentFixture, public testing::WithParamInterface<bool> {
  protected:
    VorlanDeviceTest() { bus.deferTransfers(GetParam()); }

    void open(const simulator::UsbIdentity& identity = {}) {
        plug({}, identity);
        opened = vorlan_device_open(deviceId.c_str());
        ASSERT_NE(opened, nullptr);
    }

    std::uint32_t writeSync() {
        const Record sync = encode({.cmdcode = CMD_CODE_SYNC});
        return vorlan_device_write(opened, sync.data(), kRecordSize, EP_ADDR_CMD_RESP_OUT, 100,
                                   &error);
    }

    std::uint32_t readAnswer(std::uint32_t timeout = 100) {
        return vorlan_device_read(opened, buffer.data(), kRecordSize, EP_ADDR_CMD_RESP_IN, timeout,
                                  &error);
    }

    void TearDown() override {
        vorlan_device_close(opened);
        AgentFixture::TearDown();
    }

    VORLAN_DEVICE* opened = nullptr;
    Record buffer{};
    std::uint32_t error = 0xAAAA;
};

TEST_P(VorlanDeviceTest, GoesOnForTheRestOfAnAnswerWithAFreshTimeOut) {
    open();
    device->addFault({.where = UsbFaultPoint::kSync, .what = UsbFault::cutAnswer(8, 15s)});
    std::thread([this] {
        EXPECT_EQ(writeSync(), kRecordSize);
        EXPECT_EQ(error, libusbk::kNoError);
        tap.waits.clear();
        EXPECT_EQ(readAnswer(10'000), kRecordSize);
        EXPECT_EQ(error, libusbk::kNoError);
    }).join();
    EXPECT_EQ(buffer[4], CMD_CODE_SYNC);
    EXPECT_THAT(tap.waits, ElementsAre(Pair(EP_ADDR_CMD_RESP_IN, 10'000U),
                                       Pair(EP_ADDR_CMD_RESP_IN, 10'000U)));
    EXPECT_TRUE(tap.flushes.empty());
}

TEST_P(VorlanDeviceTest, AFailedTransferTellsItsCode) {
    open();
    device->addFault({.where = UsbFaultPoint::kSync, .what = UsbFault::stallAnswer()});
    ASSERT_EQ(writeSync(), kRecordSize);
    EXPECT_EQ(readAnswer(), 0U);
    EXPECT_EQ(error, libusbk::kGeneralFailure);

    EXPECT_NE(log.contains("UsbK_ReadPipe failed. ErrorCode = 0x0000001f"), GetParam());

    bus.unplug(kPort);
    EXPECT_EQ(writeSync(), 0U);
    EXPECT_EQ(error, libusbk::kDeviceNotConnected);
    EXPECT_TRUE(log.contains("UsbK_WritePipe failed. ErrorCode = 0x0000048f"));
}

TEST_P(VorlanDeviceTest, PipesAreEmptiedAfterAFailure) {
    for (const std::int32_t driverId : {0, libusbk::kDriverIdWinUsb, libusbk::kDriverIdLibusb}) {
        vorlan_device_close(opened);
        open({.driverId = driverId});
        EXPECT_EQ(readAnswer(10), 0U);
        EXPECT_EQ(error, libusbk::kCancelled);
        // After a read only for a driver without an id; after a write for all.
        const std::vector<int> afterRead{EP_ADDR_CMD_RESP_IN};
        EXPECT_EQ(tap.flushes, driverId == 0 ? afterRead : std::vector<int>()) << driverId;

        tap.flushes.clear();
        device->addFault({.where = UsbFaultPoint::kSync, .what = UsbFault::refuseWrite(8)});
        EXPECT_EQ(writeSync(), 0U);
        EXPECT_EQ(error, libusbk::kCancelled);
        EXPECT_THAT(tap.flushes, ElementsAre(EP_ADDR_CMD_RESP_OUT)) << driverId;
        EXPECT_TRUE(
            log.contains("Write endpoint(ep_addr = 0x06) did not complete. ErrorCode=0x000004c7"));
    }
}

TEST_P(VorlanDeviceTest, NullIsIgnored) {
    EXPECT_EQ(vorlan_device_open(nullptr), nullptr);
    EXPECT_EQ(vorlan_device_open(std::string(256, 'x').c_str()), nullptr);
    vorlan_device_close(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Transfers, VorlanDeviceTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Deferred" : "AtOnce"; });
