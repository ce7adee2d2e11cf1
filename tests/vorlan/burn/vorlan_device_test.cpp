#include "vorlan/burn/vorlan_device.h"

#include <gtest/gtest.h>

#include <chrono>

#include "agentbench.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;

class VorlanDeviceTest : public AgentBench {
  protected:
    void open(const simulator::UsbIdentity& identity = {}) {
        plug({}, identity);
        opened = vorlan_device_open(deviceId.c_str());
        ASSERT_NE(opened, nullptr);
    }

    void sendSync() {
        const Record sync = encode({.cmdcode = CMD_CODE_SYNC});
        ASSERT_EQ(vorlan_device_write(opened, sync.data(), kRecordSize, EP_ADDR_CMD_RESP_OUT, 100,
                                      nullptr),
                  kRecordSize);
    }

    std::uint32_t readAnswer(std::uint32_t timeout = 100) {
        return vorlan_device_read(opened, buffer.data(), kRecordSize, EP_ADDR_CMD_RESP_IN, timeout,
                                  &error);
    }

    void TearDown() override {
        vorlan_device_close(opened);
        AgentBench::TearDown();
    }

    VORLAN_DEVICE* opened = nullptr;
    Record buffer{};
    std::uint32_t error = 0xAAAA;
};

TEST_F(VorlanDeviceTest, ReadsWholeAnswersAndTellsATimeOut) {
    open();
    sendSync();
    EXPECT_EQ(readAnswer(), kRecordSize);
    EXPECT_EQ(error, libusbk::kNoError);
    EXPECT_EQ(buffer[4], CMD_CODE_SYNC);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(readAnswer(), 0U);
    EXPECT_EQ(error, libusbk::kCancelled);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_F(VorlanDeviceTest, GoesOnForTheRestOfAnAnswerWithAFreshTimeOut) {
    open();
    device->addFault({.where = FaultPoint::Sync, .what = Fault::cutAnswer(8, 150ms)});
    sendSync();
    EXPECT_EQ(readAnswer(), kRecordSize);
    EXPECT_EQ(error, libusbk::kNoError);
}

TEST_F(VorlanDeviceTest, AShortAnswerIsNoError) {
    open();
    device->addFault({.where = FaultPoint::Sync, .what = Fault::shortAnswer(15)});
    sendSync();
    EXPECT_EQ(readAnswer(), 15U);
    EXPECT_EQ(error, libusbk::kNoError);
}

TEST_F(VorlanDeviceTest, AFailedTransferTellsItsCode) {
    open();
    device->addFault({.where = FaultPoint::Sync, .what = Fault::stallAnswer()});
    sendSync();
    EXPECT_EQ(readAnswer(), 0U);
    EXPECT_EQ(error, libusbk::kGeneralFailure);

    bus.unplug(kPort);
    const Record sync = encode({.cmdcode = CMD_CODE_SYNC});
    EXPECT_EQ(
        vorlan_device_write(opened, sync.data(), kRecordSize, EP_ADDR_CMD_RESP_OUT, 100, &error),
        0U);
    EXPECT_EQ(error, libusbk::kDeviceNotConnected);
}

TEST_F(VorlanDeviceTest, ADriverWithoutAnIdHasItsPipeEmptiedAfterATimeOut) {
    open({.driverId = 0});
    device->addFault({.where = FaultPoint::Sync, .what = Fault::lateAnswer(50ms)});
    sendSync();
    EXPECT_EQ(readAnswer(10), 0U);
    EXPECT_EQ(error, libusbk::kCancelled);
}

TEST_F(VorlanDeviceTest, NullIsIgnored) {
    EXPECT_EQ(vorlan_device_open(nullptr), nullptr);
    EXPECT_EQ(vorlan_device_open(std::string(256, 'x').c_str()), nullptr);
    vorlan_device_close(nullptr);
}
