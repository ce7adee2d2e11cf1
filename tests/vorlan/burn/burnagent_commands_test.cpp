// The commands of the agent one by one: their bytes, their pace, their limits and what they log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <set>

#include "agentfixture.h"
#include "utils/fileutil.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;
using testing::Contains;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

class BurnAgentCommands : public AgentFixture {
  protected:
    // The sizes of the chunks that the device has got.
    std::vector<std::size_t> chunksSent() const {
        std::vector<std::size_t> sizes;
        for (const simulator::UsbTransfer& transfer : device->transfers())
            if (transfer.endpoint == EP_ADDR_DATA_RESP_OUT)
                sizes.push_back(transfer.bytes.size());
        return sizes;
    }
};

TEST_F(BurnAgentCommands, WriteVerifyAndErase) {
    plug();
    const BurnItem image = item("image.bin", 0x1000, "image");
    ASSERT_TRUE(run({image}));
    ASSERT_TRUE(run({image}, {}, CMD_CODE_VERIFY_ONLY));
    ASSERT_TRUE(run({image}, {}, CMD_CODE_ERASE_ONLY));
    EXPECT_EQ(device->flash().read(0x1000, 5), std::vector<std::uint8_t>(5, 0xFF));
    log.takeAll();
    ASSERT_FALSE(run({image}, {}, CMD_CODE_VERIFY_ONLY));
    EXPECT_THAT(log.take(hj::kError),
                Contains(HasSubstr("BurnAgent::vorlan_verify_only: VERIFY_ONLY command failed!")));
}

TEST_F(BurnAgentCommands, AResultIsAskedForAsLongAsTheSizeAllows) {
    constexpr std::size_t kMiB = 0x100000;
    const struct {
        unsigned mode;
        std::size_t size;
        std::uint32_t polls;
    } cases[] = {
        {CMD_CODE_FLASH_WRITE, 0, 1},      {CMD_CODE_FLASH_WRITE, 15, 301},
        {CMD_CODE_FLASH_WRITE, kMiB, 301}, {CMD_CODE_FLASH_WRITE, kMiB + 1, 601},
        {CMD_CODE_VERIFY_ONLY, kMiB, 101}, {CMD_CODE_ERASE_ONLY, kMiB + 1, 201},
    };
    for (const auto& c : cases) {
        plug();
        device->addFault({UsbFaultPoint::kGetResult, UsbFault::response(RESP_CODE_ONGOING), 0,
                          UsbFaultRule::kAlways});
        EXPECT_FALSE(run({item("image.bin", 0, std::string(c.size, '\xFF'))}, {}, c.mode));
        EXPECT_EQ(device->count(UsbFaultPoint::kGetResult), c.polls) << c.mode << ", " << c.size;
    }
}

TEST_F(BurnAgentCommands, PauseBeforeTheyGoOnOrTryAgain) {
    constexpr int kWrite = CMD_CODE_FLASH_WRITE;
    constexpr int kVerify = CMD_CODE_VERIFY_ONLY;
    constexpr int kErase = CMD_CODE_ERASE_ONLY;
    constexpr int kResult = CMD_CODE_GET_RESULT;
    const struct {
        unsigned mode;
        UsbFaultPoint where;
        std::optional<UsbFault> fault;
        int from;
        int to;
        std::chrono::milliseconds least;
    } cases[] = {
        {kWrite, UsbFaultPoint::kSync, {}, CMD_CODE_SYNC, CMD_CODE_SET_CRC64, 1ms},
        {kWrite, UsbFaultPoint::kSync, UsbFault::response(4), CMD_CODE_SYNC, CMD_CODE_SYNC, 10ms},
        {kWrite, UsbFaultPoint::kSync, UsbFault::silence(), CMD_CODE_SYNC, CMD_CODE_SYNC, 210ms},
        {kWrite, UsbFaultPoint::kSync, UsbFault::refuseWrite(), CMD_CODE_SYNC, CMD_CODE_SYNC,
         110ms},
        {kWrite, UsbFaultPoint::kSetCrc64, UsbFault::response(4), CMD_CODE_SET_CRC64,
         CMD_CODE_SET_CRC64, 10ms},
        {kWrite, UsbFaultPoint::kSetCrc64, UsbFault::silence(), CMD_CODE_SET_CRC64,
         CMD_CODE_SET_CRC64, 210ms},
        {kWrite, UsbFaultPoint::kFlashWrite, UsbFault::response(4), kWrite, kWrite, 10ms},
        {kWrite, UsbFaultPoint::kFlashWrite, {}, kWrite, UsbTap::kChunk, 10ms},
        {kWrite, UsbFaultPoint::kChunk, UsbFault::lateAnswer(300ms), UsbTap::kChunkAnswer,
         UsbTap::kChunkAnswer, 220ms},
        {kWrite, UsbFaultPoint::kGetResult, UsbFault::response(3), kResult, kResult, 100ms},
        {kWrite, UsbFaultPoint::kGetResult, UsbFault::wrongCmdorg(2), kResult, kResult, 100ms},
        {kWrite, UsbFaultPoint::kGetResult, UsbFault::silence(), kResult, kResult, 300ms},
        {kVerify, UsbFaultPoint::kVerifyOnly, UsbFault::response(4), kVerify, kVerify, 10ms},
        {kVerify, UsbFaultPoint::kVerifyOnly, {}, kVerify, kResult, 20ms},
        {kErase, UsbFaultPoint::kEraseOnly, UsbFault::response(4), kErase, kErase, 10ms},
        {kErase, UsbFaultPoint::kEraseOnly, {}, kErase, kResult, 20ms},
    };
    const BurnItem image = item("image.bin", 0, std::string(5, '\xFF'));
    for (const auto& c : cases) {
        plug();
        if (c.fault)
            device->addFault({.where = c.where, .what = *c.fault, .times = 2});
        EXPECT_TRUE(run({image}, {}, c.mode));
        EXPECT_GE(tap.shortest(c.from, c.to), c.least) << "from " << c.from << " to " << c.to;
        EXPECT_LT(tap.shortest(c.from, c.to), 1h) << "from " << c.from << " to " << c.to;
    }
}

TEST_F(BurnAgentCommands, LimitsOfTheTransfers) {
    plug();
    device->addFault({.where = UsbFaultPoint::kChunk, .what = UsbFault::error("no"), .skip = 1});
    EXPECT_FALSE(run({item("image.bin", 0, imageBytes(2UL * 4096))}));
    EXPECT_THAT(
        (std::set<std::pair<int, unsigned>>(tap.waits.begin(), tap.waits.end())),
        UnorderedElementsAre(Pair(EP_ADDR_CMD_RESP_OUT, 100U), Pair(EP_ADDR_CMD_RESP_IN, 200U),
                             Pair(EP_ADDR_DATA_RESP_OUT, 200U), Pair(EP_ADDR_DATA_RESP_IN, 200U)));
    EXPECT_TRUE(log.contains("BurnAgent::vorlan_burn: no\n"));
}

TEST_F(BurnAgentCommands, ADeviceThatAnswersNoSyncWhileItProgramsFailsTheBurn) {
    plug({.chunkTime = 3s});
    device->addFault({.where = UsbFaultPoint::kSync,
                      .what = UsbFault::swallow(),
                      .skip = 1,
                      .times = UsbFaultRule::kAlways});
    EXPECT_FALSE(run({item("image.bin", 0, "image")}));
    EXPECT_EQ(device->count(UsbFaultPoint::kSync), 1U + 3U);
    EXPECT_EQ(device->count(UsbFaultPoint::kGetResult), 0U);
    EXPECT_TRUE(log.contains("vorlan SYNC command has been retried for 3 times, FAILED!"));
}

TEST_F(BurnAgentCommands, AChunkWithoutAnAnswerIsGivenUpAfterSixteenSeconds) {
    plug();
    device->addFault({.where = UsbFaultPoint::kChunk, .what = UsbFault::silence()});
    const BurnItem image = item("image.bin", 0, "image");
    testing::internal::CaptureStdout();
    const bool done = run({image});
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("BurnAgent::vorlan_burn: timeout to read data response (elasped 16 "
                          "sec)!\n"));
    EXPECT_FALSE(done);
    EXPECT_TRUE(log.contains("FLASH_WRITE command failed!"));
    EXPECT_FALSE(listener.has(text::narrow(image.file) + " 95"));
}

TEST_F(BurnAgentCommands, FilesThatGoWrongWhileTheyAreRead) {
    using Strings = std::vector<std::string>;
    const struct {
        const char* mode;
        off_t left;  // bytes of the file once its CRC is told, -1 if it cannot be read any more
        std::vector<std::size_t> chunks;
        const char* logged;
        Strings breaches;
    } cases[] = {
        {"ab", 10'000, {}, "BurnAgent::vorlan_burn: FAILED to calculate crc64 value", {}},
        {"rb", -1, {}, "error(00000009h) occurs in reading image file! readBytes = 0\n", {}},
        // What is left of a file that has become shorter is sent, and the device refuses it.
        {"rb", 5000, {4096, 904}, "a chunk of a wrong size", {"burner: a chunk of a wrong size"}},
        {"rb", 4096, {4096}, "too short", {"burner: GET_RESULT in the data phase"}},
    };
    const fileutil::FilePtr writeOnly = fileutil::openFile("/dev/null", "wb");
    for (const auto& c : cases) {
        plug({.recordsTransfers = true});
        device->addFault(
            {.where = UsbFaultPoint::kGetResult, .what = UsbFault::error("too short")});
        const BurnItem image = item("image.bin", 0x1000, imageBytes(10'000));
        const fileutil::FilePtr file = fileutil::openFile(text::narrow(image.file), c.mode);
        ASSERT_NE(file, nullptr);
        tap.afterRead = [&] {
            if (device->count(UsbFaultPoint::kSetCrc64) == 0)
                return;
            if (c.left >= 0)
                EXPECT_EQ(::truncate(text::narrow(image.file).c_str(), c.left), 0);
            else
                EXPECT_GE(::dup2(::fileno(writeOnly.get()), ::fileno(file.get())), 0);
        };
        BurnAgent agent(deviceId);
        VORLAN_DEVICE* const open = vorlan_device_open(deviceId.c_str());
        ASSERT_NE(open, nullptr);
        EXPECT_FALSE(agent.vorlan_burn(open, 0x1000, file.get(), BURN_FLAG_CRC64)) << c.logged;
        vorlan_device_close(open);
        EXPECT_EQ(chunksSent(), c.chunks) << c.logged;
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
        EXPECT_EQ(device->errors(), c.breaches) << c.logged;
    }
    device = nullptr;  // its breaches are accounted for
}
