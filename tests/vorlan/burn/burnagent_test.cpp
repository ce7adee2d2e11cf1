#include "vorlan/burn/burnagent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>

#include "agentfixture.h"
#include "utils/fileutil.h"
#include "utils/interruption.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class BurnAgentTest : public AgentFixture {};

TEST_F(BurnAgentTest, WritesImagesInOrderAndTheSerialNumberBehindThem) {
    plug({.chunkTime = 1ms, .resultTime = 120ms});
    const std::string first = imageBytes(10'000, 1);
    const std::string second = imageBytes(4096, 2);
    const BurnItem firstItem = item("first.bin", 0x0, first);
    const BurnItem secondItem = item("second.bin", 0x20000, second);
    EXPECT_TRUE(run({firstItem, secondItem}, "VRL260000000001"));

    EXPECT_TRUE(flashHolds(0x0, first));
    EXPECT_TRUE(flashHolds(0x20000, second));
    EXPECT_TRUE(flashHolds(kSnAddress, "VRL260000000001"));
    const std::vector<simulator::Flash::Range> written{
        {0x0, 10'000}, {0x20000, 4096}, {kSnAddress, 15}};
    EXPECT_EQ(device->flash().writtenRanges(), written);
    EXPECT_EQ(device->count(UsbFaultPoint::kChunk), 3U + 1U + 1U);

    const std::string firstPath = text::narrow(firstItem.file);
    const std::string secondPath = text::narrow(secondItem.file);
    EXPECT_THAT(listener.reports,
                ElementsAre("start", firstPath + " 0", firstPath + " 18", firstPath + " 37",
                            firstPath + " 45", firstPath + " 100", secondPath + " 0",
                            secondPath + " 45", secondPath + " 100", "SN=VRL260000000001 0",
                            "SN=VRL260000000001 45", "SN=VRL260000000001 100", "done"));
}

TEST_F(BurnAgentTest, ChunksFollowFromTheSize) {
    const std::pair<std::size_t, unsigned> sizes[] = {{0, 0}, {1, 1}, {4096, 1}, {4097, 2}};
    for (const auto& [size, chunks] : sizes) {
        plug();
        listener.reports.clear();
        const std::string image = imageBytes(size);
        EXPECT_TRUE(run({item("image.bin", 0x1000, image)})) << size;
        EXPECT_TRUE(flashHolds(0x1000, image)) << size;
        EXPECT_EQ(device->count(UsbFaultPoint::kChunk), chunks) << size;
        EXPECT_TRUE(run({}, image)) << size;
        EXPECT_TRUE(flashHolds(kSnAddress, image)) << size;
        EXPECT_EQ(device->errors(), std::vector<std::string>());
    }
    // An empty image reports nothing between the two ends and is asked for its result once.
    plug();
    listener.reports.clear();
    const BurnItem empty = item("empty.bin", 0x1000, "");
    ASSERT_TRUE(run({empty}));
    const std::string path = text::narrow(empty.file);
    EXPECT_THAT(listener.reports, ElementsAre("start", path + " 0", path + " 100", "done"));
    EXPECT_EQ(device->count(UsbFaultPoint::kGetResult), 1U);

    plug();
    listener.reports.clear();
    EXPECT_TRUE(run({})) << "nothing to burn is a burn too";
    EXPECT_THAT(listener.reports, ElementsAre("start", "done"));
    EXPECT_EQ(device->count(UsbFaultPoint::kFlashWrite), 0U);
}

TEST_F(BurnAgentTest, SlowFlashIsWaitedForWithSyncAndEachChunkHasItsOwnLimit) {
    plug({.chunkTime = 10s});
    const BurnItem slow = item("slow.bin", 0, imageBytes(3UL * 4096));
    EXPECT_TRUE(run({slow}));
    EXPECT_GE(device->count(UsbFaultPoint::kSync), 1U + 3U * 40U);
    // Waiting moves the percent on by itself, half a percent a turn, and the data gives 45 of it.
    const std::string path = text::narrow(slow.file);
    EXPECT_TRUE(listener.has(path + " 1")) << testing::PrintToString(listener.reports);
    ASSERT_GE(listener.reports.size(), 3U);
    EXPECT_EQ(listener.reports.end()[-3], path + " 95");
    EXPECT_LT(listener.reports.size(), 110U) << "half percents are not worth a report";
}

TEST_F(BurnAgentTest, TheFirstSyncIsTriedTenTimesUnlessItIsRefused) {
    const struct {
        UsbFaultRule rule;
        std::uint32_t tries;
        bool done;
        std::chrono::milliseconds least;
        const char* logged;
    } cases[] = {
        // The answers of other commands are none.
        {{UsbFaultPoint::kSync, UsbFault::wrongCmdorg(2), 0, 9}, 10, true, 0ms, ""},
        {{UsbFaultPoint::kSync, UsbFault::silence(), 0, UsbFaultRule::kAlways},
         10,
         false,
         2100ms,
         "vorlan SYNC command has been retried for 10 times, FAILED!"},
        {{UsbFaultPoint::kSync, UsbFault::error("not today")},
         1,
         false,
         0ms,
         "vorlan SYNC command failed! in response, cmdorg = 4, BurnAgent::vorlan_sync: not today"},
    };
    for (const auto& c : cases) {
        plug();
        listener.reports.clear();
        device->addFault(c.rule);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(run({}), c.done);
        EXPECT_GE(std::chrono::steady_clock::now() - start, c.least);
        EXPECT_EQ(device->count(UsbFaultPoint::kSync), c.tries);
        EXPECT_EQ(listener.has("error -2 Failed to sync device!"), !c.done);
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
    }
}

TEST_F(BurnAgentTest, AMissingImageStopsTheBurnThere) {
    plug();
    const std::string first = imageBytes(100);
    BurnItem missing = item("missing.bin", 0x2000, "");
    missing.file += L".gone";
    const BurnItem behind = item("behind.bin", 0x3000, "behind");
    EXPECT_FALSE(run({item("first.bin", 0x1000, first), missing, behind}, "SN-1"));
    EXPECT_EQ(listener.reports.back(),
              "error -3 Open file failed! path=" + text::narrow(missing.file));
    EXPECT_TRUE(flashHolds(0x1000, first));
    const std::vector<simulator::Flash::Range> written{{0x1000, 100}};
    EXPECT_EQ(device->flash().writtenRanges(), written);

    // A directory is no image either.
    listener.reports.clear();
    const BurnItem folder{text::widen(directory.path().string()), 0};
    EXPECT_FALSE(run({folder}));
    EXPECT_THAT(listener.reports.back(), HasSubstr("error -3 Open file failed! path="));
}

TEST_F(BurnAgentTest, WhatCannotBeOpenedIsReportedAndReleased) {
    using simulator::UsbOperation;
    deviceId = "USB\\VID_1234&PID_5678\\0000:00:14.0-9";
    EXPECT_FALSE(run({}));
    EXPECT_THAT(listener.reports, ElementsAre("error -1 Cannot open device!"));
    EXPECT_TRUE(log.contains("LstK_FindByVidPid: vorlan device not found, errorCode = 0x"));

    plug();
    const struct {
        UsbOperation operation;
        std::uint32_t code;
        std::uint32_t skip;
        const char* logged;
        std::string printed = {};
    } cases[] = {
        {UsbOperation::kList, 8, 0,
         "An error occured getting the device list. errorCode = 0x00000008"},
        {UsbOperation::kOpen, 5, 0, "Init vorlan device failed. ErrorCode = 0x00000005"},
        {UsbOperation::kClaim, 259, 0, "", "Interface number 0x00 does not exists.\n"},
        {UsbOperation::kClaim, 170, 0, "", "UsbK_ClaimInterface failed. ErrorCode: 0x000000aa\n"},
        {UsbOperation::kPoolInit, 8, 0, "OvlK_Init failed. ErrorCode = 0x00000008"},
        {UsbOperation::kSlotAcquire, 259, 0, "OvlK_Acquire failed. ErrorCode = 0x00000103"},
        {UsbOperation::kSlotAcquire, 259, 3, "OvlK_Acquire failed. ErrorCode = 0x00000103"},
    };
    for (const auto& c : cases) {
        listener.reports.clear();
        log.takeAll();
        bus.fail(c.operation, c.code, c.skip);
        testing::internal::CaptureStdout();
        const bool done = run({});
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_FALSE(done);
        EXPECT_THAT(listener.reports, ElementsAre("error -1 Cannot open device!"));
        // What is printed is not logged too.
        EXPECT_EQ(log.contains(c.logged), c.printed.empty()) << c.logged;
        EXPECT_EQ(bus.openHandles(), 0U) << c.logged;
    }
    EXPECT_TRUE(run({})) << "the device itself was never at fault";
}

TEST_F(BurnAgentTest, TheSystemsOwnDriverIsWarnedOfIfItDoesNotSupportTheDevice) {
    using namespace libusbk;
    const struct {
        std::uint32_t code;
        std::int32_t driverId;
        bool warned;
    } cases[] = {
        {kInvalidFunction, kDriverIdWinUsb, true},
        {kAccessDenied, kDriverIdWinUsb, false},
        {kInvalidFunction, kDriverIdLibusb, false},
    };
    for (const auto& c : cases) {
        plug({}, {.driverId = c.driverId});
        log.takeAll();
        bus.fail(simulator::UsbOperation::kOpen, c.code);
        EXPECT_FALSE(run({}));
        EXPECT_EQ(log.contains("vorlan_burn_agent: open vln_helper.dll failed"), c.warned)
            << c.code << " with driver " << c.driverId;
    }
}

TEST_F(BurnAgentTest, GeneralExchange) {
    plug();
    BurnAgent agent(deviceId);
    VORLAN_DEVICE* const open = vorlan_device_open(deviceId.c_str());
    ASSERT_NE(open, nullptr);
    const Record sync = encode({.cmdcode = CMD_CODE_SYNC});
    const auto send = [&](unsigned retries, std::uint8_t* respcode) {
        return agent.vorlan_send_usb_command(open, sync.data(), kRecordSize, retries, 1, respcode);
    };

    const struct {
        std::optional<UsbFaultRule> fault;
        unsigned retries;
        bool done;
        std::uint32_t messages;
        const char* logged;
    } cases[] = {
        {{}, 1, true, 1, ""},
        {{{UsbFaultPoint::kSync, UsbFault::response(4), 0, 2}},
         2,
         false,
         2,
         "SYNC(4) for 2 times!"},
        {{{UsbFaultPoint::kSync, UsbFault::wrongCmdorg(6), 0, 3}},
         3,
         false,
         3,
         "SYNC(4) for 3 times!"},
        {{{UsbFaultPoint::kSync, UsbFault::wrongCmdorg(0)}}, 1, true, 1, ""},
        {{{UsbFaultPoint::kSync, UsbFault::refuseWrite()}}, 3, false, 1, ""},
        {{{UsbFaultPoint::kSync, UsbFault::error("no")}},
         3,
         false,
         1,
         "vorlan_send_usb_command: no\n"},
        // Nothing of a long text is left to be taken for the next answer.
        {{{UsbFaultPoint::kSync, UsbFault::error(std::string(255, 'd'))}}, 1, false, 1, ""},
        {{}, 1, true, 1, ""},
        {{{UsbFaultPoint::kSync, UsbFault::error("")}}, 1, false, 1, ""},
    };
    for (const auto& c : cases) {
        const std::uint32_t before = device->count(UsbFaultPoint::kSync);
        if (c.fault)
            device->addFault(*c.fault);
        tap.waits.clear();
        std::uint8_t respcode = 0xAA;
        EXPECT_EQ(send(c.retries, &respcode), c.done);
        EXPECT_EQ(respcode, c.done ? RESP_CODE_SUCCESS : RESP_CODE_ERROR);
        EXPECT_EQ(device->count(UsbFaultPoint::kSync) - before, c.messages);
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
    }
    EXPECT_EQ(tap.waits.size(), 2U) << "a text of no bytes was read";
    vorlan_device_close(open);

    EXPECT_EQ(BurnAgent::get_version(), "unknown");
    EXPECT_TRUE(log.contains("open vln_helper.dll failed"));
}

TEST_F(BurnAgentTest, UnpluggedAtAnyByteItEndsAndLeaksNothing) {
    plug();
    const BurnItem image = item("image.bin", 0x1000, "image");
    ASSERT_TRUE(run({image}, "SN-1"));
    const std::uint64_t whole = device->traffic();
    for (std::uint64_t at = 0; at < whole; ++at) {
        plug();
        listener.reports.clear();
        device->unplugAtByte(at);
        ASSERT_FALSE(run({image}, "SN-1")) << "at byte " << at;
        EXPECT_FALSE(listener.has("done")) << "at byte " << at;
        // Only a device that has not even answered SYNC is an error to report.
        EXPECT_EQ(listener.has("error -2 Failed to sync device!"),
                  at < std::uint64_t{2} * kRecordSize)
            << at;
        EXPECT_EQ(bus.openHandles(), 0U) << "at byte " << at;
        EXPECT_EQ(device->errors(), std::vector<std::string>());
    }
}

TEST_F(BurnAgentTest, AnInterruptedBurnEndsAtOnceAndReportsNoFailure) {
    const struct {
        const char* name;
        UsbFaultRule rule;
    } holdUps[] = {
        {"first sync", {UsbFaultPoint::kSync, UsbFault::swallow(), 0, UsbFaultRule::kAlways}},
        {"write", {UsbFaultPoint::kFlashWrite, UsbFault::silence(), 0, UsbFaultRule::kAlways}},
        {"chunk", {UsbFaultPoint::kChunk, UsbFault::refuseWrite(), 1, UsbFaultRule::kAlways}},
        {"answer to a chunk",
         {UsbFaultPoint::kChunk, UsbFault::silence(), 1, UsbFaultRule::kAlways}},
        {"result", {UsbFaultPoint::kGetResult, UsbFault::response(3), 0, UsbFaultRule::kAlways}},
    };
    clock.reset();  // nobody is to leap over the waits that are cut short here
    for (const auto& holdUp : holdUps) {
        plug();
        listener.reports.clear();
        device->addFault(holdUp.rule);
        const BurnItem image = item("image.bin", 0, imageBytes(3UL * 4096));
        bool done = true;
        std::jthread worker([&](const std::stop_token& stop) {
            const interruption::Scope scope(stop);
            done = run({image}, "SN-1");
        });
        while (device->count(holdUp.rule.where) <= holdUp.rule.skip)
            std::this_thread::yield();
        worker.request_stop();
        const std::uint64_t atTheStop = device->traffic();
        worker.join();
        EXPECT_EQ(device->traffic(), atTheStop) << holdUp.name;
        EXPECT_FALSE(done) << holdUp.name;
        EXPECT_THAT(listener.reports, Not(Contains(HasSubstr("error")))) << holdUp.name;
    }
}

TEST_F(BurnAgentTest, ABurnThatTheDeviceHasConfirmedIsReportedThoughInterrupted) {
    plug();
    std::stop_source stop;
    const interruption::Scope scope(stop.get_token());
    // When its last percent is reported the device has confirmed all.
    listener.progressed = [&](unsigned percent) {
        if (percent == 100)
            stop.request_stop();
    };
    EXPECT_TRUE(run({}, "SN-1"));
    EXPECT_EQ(listener.reports.back(), "done");
    EXPECT_TRUE(flashHolds(kSnAddress, "SN-1"));
}
