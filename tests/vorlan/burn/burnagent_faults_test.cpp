// What a burn, a verification and an erasure make of each fault of the device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <tuple>

#include "agentbench.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;
using simulator::FaultRule;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// How a command ends that meets a fault on the open device.
struct FaultCase {
    const char* name;
    FaultRule rule;
    bool succeeds;
    const char* logged;  // part of a line of the run log, empty if none matters

    std::uint32_t messages = 0;  // of the kind that the rule is about, 0 if that does not matter
    unsigned mode = CMD_CODE_FLASH_WRITE;
    const char* printed = "";  // part of the standard output
    std::size_t imageSize = 3 * kChunkSize;
};

void PrintTo(const FaultCase& test, std::ostream* out) {
    *out << test.name;
}

// Each fault, with and without transfers that end inside the call that starts them.
class BurnAgentFaults : public AgentBench,
                        public testing::WithParamInterface<std::tuple<FaultCase, bool>> {};

TEST_P(BurnAgentFaults, EndTheBurnWithoutAReportOrAreGotOver) {
    const auto& [test, atOnce] = GetParam();
    bus.deferTransfers(!atOnce);
    plug();
    device->addFault(test.rule);
    // Bare flash passes for written with bytes that are all set.
    const std::string image = test.mode == CMD_CODE_FLASH_WRITE
                                  ? imageBytes(test.imageSize)
                                  : std::string(test.imageSize, '\xFF');
    testing::internal::CaptureStdout();
    const bool done = run({item("image.bin", 0x1000, image)}, "SN-1", test.mode);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(test.printed));
    EXPECT_EQ(done, test.succeeds);
    EXPECT_EQ(listener.has("done"), test.succeeds);
    EXPECT_THAT(listener.reports, Not(Contains(HasSubstr("error "))));
    if (test.succeeds) {
        EXPECT_TRUE(flashHolds(0x1000, image));
    }
    EXPECT_EQ(flashHolds(kSnAddress, "SN-1"), test.succeeds);
    EXPECT_TRUE(log.contains(test.logged));
    EXPECT_FALSE(log.contains(std::string(128, 'd'))) << "the text is cut to its buffer";
    if (test.messages != 0) {
        EXPECT_EQ(device->count(test.rule.where), test.messages);
    }
}

const std::string kText127(127, 'd');

INSTANTIATE_TEST_SUITE_P(
    Faults, BurnAgentFaults,
    testing::Combine(
        testing::Values(
            FaultCase{"BusyTwice",
                      {.where = FaultPoint::FlashWrite, .what = Fault::response(4), .times = 2},
                      true,
                      "FLASH_WRITE command successful!"},
            FaultCase{"BusyForGood",
                      {.where = FaultPoint::FlashWrite, .what = Fault::response(4), .times = 3},
                      false,
                      "BurnAgent::vorlan_burn: retry sending FLASH_WRITE for 3 times!",
                      3},
            FaultCase{"WriteRefused",
                      {.where = FaultPoint::FlashWrite, .what = Fault::error("write protected")},
                      false,
                      "BurnAgent::vorlan_burn: write protected"},
            FaultCase{"UnknownAnswerToWrite",
                      {.where = FaultPoint::FlashWrite, .what = Fault::response(99), .times = 2},
                      true,
                      ""},
            FaultCase{"CrcAnswerNamesNoCommand",
                      {.where = FaultPoint::SetCrc64, .what = Fault::wrongCmdorg(0), .times = 3},
                      false,
                      "BurnAgent::vorlan_set_crc64: retry sending SET_CRC64 for 3 times!",
                      3},
            FaultCase{"CrcRefused",
                      {.where = FaultPoint::SetCrc64, .what = Fault::error("no crc")},
                      false,
                      "vorlan SET_CRC64 command failed! BurnAgent::vorlan_set_crc64: no crc"},
            FaultCase{"CrcAnswerLost",
                      {.where = FaultPoint::SetCrc64, .what = Fault::silence(), .times = 2},
                      true,
                      ""},
            FaultCase{"ErrorWithoutText",
                      {.where = FaultPoint::Chunk, .what = Fault::error(""), .skip = 1},
                      false,
                      "BurnAgent::vorlan_burn: \n"},
            FaultCase{"ErrorTextOf128",
                      {.where = FaultPoint::Chunk, .what = Fault::error(std::string(128, 'd'))},
                      false,
                      kText127.c_str()},
            FaultCase{"ErrorTextOf255",
                      {.where = FaultPoint::GetResult, .what = Fault::error(std::string(255, 'd'))},
                      false,
                      kText127.c_str()},
            FaultCase{"ErrorTextShorterThanItSays",
                      {.where = FaultPoint::Chunk, .what = Fault::error("short", 200)},
                      false,
                      "BurnAgent::vorlan_burn: short"},
            FaultCase{"ChunkAnsweredWithSuccess",
                      {.where = FaultPoint::Chunk, .what = Fault::response(0), .skip = 1},
                      false,
                      "FLASH_WRITE command failed!"},
            FaultCase{"ChunkAnsweredWithOngoing",
                      {.where = FaultPoint::Chunk, .what = Fault::response(3), .skip = 1},
                      false,
                      "FLASH_WRITE command failed!"},
            FaultCase{"ChunkAnsweredShort",
                      {.where = FaultPoint::Chunk, .what = Fault::shortAnswer(15)},
                      false,
                      "FLASH_WRITE command failed!",
                      1,
                      CMD_CODE_FLASH_WRITE,
                      "BurnAgent::vorlan_burn: failed to read data response, bytes = 15, "
                      "ErrorCode = 0x00000000\n"},
            FaultCase{"ChunkStalls",
                      {.where = FaultPoint::Chunk, .what = Fault::stall(), .skip = 2},
                      false,
                      "FLASH_WRITE command failed!"},
            FaultCase{"ChunkTakenInPart",
                      {.where = FaultPoint::Chunk, .what = Fault::refuseWrite(1000)},
                      false,
                      "did not complete. ErrorCode=0x000004c7"},
            FaultCase{"FlashKeepsAWrongByte",
                      {.where = FaultPoint::Chunk, .what = Fault::corrupt(7), .skip = 1},
                      false,
                      "BurnAgent::vorlan_get_result: "},
            FaultCase{"ResultOfAnotherCommand",
                      {.where = FaultPoint::GetResult, .what = Fault::wrongCmdorg(2), .times = 2},
                      true,
                      ""},
            FaultCase{"ResultWithUnknownCode",
                      {.where = FaultPoint::GetResult, .what = Fault::response(77), .times = 2},
                      true,
                      ""},
            FaultCase{"ResultAnswerLost",
                      {.where = FaultPoint::GetResult, .what = Fault::silence()},
                      true,
                      ""},
            FaultCase{"AnswerCutInTwo",
                      {.where = FaultPoint::GetResult, .what = Fault::cutAnswer(8, 300ms)},
                      true,
                      "",
                      2,
                      CMD_CODE_FLASH_WRITE,
                      "Read endpoint(ep_addr = 0x85) cancelled. bytes_read = 8, "
                      "ErrorCode=0x000004c7\n"},
            FaultCase{"SyncNotTaken",
                      {.where = FaultPoint::Sync, .what = Fault::refuseWrite()},
                      true,
                      "",
                      2},
            FaultCase{"SyncTakenInPart",
                      {.where = FaultPoint::Sync, .what = Fault::shortWrite(15)},
                      true,
                      "",
                      2},
            FaultCase{"SyncBusyTwice",
                      {.where = FaultPoint::Sync, .what = Fault::response(4), .times = 2},
                      true,
                      "",
                      3},
            FaultCase{"SyncAnsweredByNobody",
                      {.where = FaultPoint::Sync, .what = Fault::wrongCmdorg(0)},
                      true,
                      "",
                      1},
            FaultCase{"CrcNotTaken",
                      {.where = FaultPoint::SetCrc64, .what = Fault::refuseWrite()},
                      false,
                      "BurnAgent::vorlan_burn: FAILED to set crc64 value into vorlan device!",
                      1},
            FaultCase{"CrcBusyTwice",
                      {.where = FaultPoint::SetCrc64, .what = Fault::response(4), .times = 2},
                      true,
                      "",
                      4},
            FaultCase{"WriteNotTaken",
                      {.where = FaultPoint::FlashWrite, .what = Fault::refuseWrite()},
                      false,
                      "FLASH_WRITE command failed!",
                      1},
            FaultCase{"WriteTakenInPart",
                      {.where = FaultPoint::FlashWrite, .what = Fault::shortWrite(15)},
                      false,
                      "FLASH_WRITE command failed!",
                      1},
            FaultCase{"WriteAnswerNamesAnything",
                      {.where = FaultPoint::FlashWrite,
                       .what = Fault::wrongCmdorg(77),
                       .times = FaultRule::kAlways},
                      true,
                      "",
                      2},
            FaultCase{"LastChunkAnswerNamesAnything",
                      {.where = FaultPoint::Chunk, .what = Fault::wrongCmdorg(77), .skip = 2},
                      true,
                      "",
                      4},
            FaultCase{"ChunkEndsShort",
                      {.where = FaultPoint::Chunk, .what = Fault::shortWrite(4095)},
                      false,
                      "FLASH_WRITE command failed!",
                      1},
            FaultCase{"ResultNotTaken",
                      {.where = FaultPoint::GetResult, .what = Fault::refuseWrite()},
                      false,
                      "FLASH_WRITE command failed!",
                      1},
            FaultCase{"ResultAnswerNamesNoCommand",
                      {.where = FaultPoint::GetResult,
                       .what = Fault::wrongCmdorg(0),
                       .times = FaultRule::kAlways},
                      true,
                      "",
                      2},
            FaultCase{"EmptyImageIsAskedForOnce",
                      {.where = FaultPoint::GetResult,
                       .what = Fault::response(3),
                       .times = FaultRule::kAlways},
                      false,
                      "BurnAgent::vorlan_get_result: timeout!",
                      1,
                      CMD_CODE_FLASH_WRITE,
                      "",
                      0},
            FaultCase{"VerifyNotTaken",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::refuseWrite()},
                      false,
                      "",
                      1,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyBusyTwice",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::response(4), .times = 2},
                      true,
                      "VERIFY_ONLY command succeed!",
                      3,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyBusyForGood",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::response(4), .times = 3},
                      false,
                      "BurnAgent::vorlan_verify_only: retry sending VERIFY_ONLY for 3 times!",
                      3,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyAnswerLostTwice",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::silence(), .times = 2},
                      true,
                      "",
                      3,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyAnswerNamesNoCommand",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::wrongCmdorg(0)},
                      true,
                      "",
                      1,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyAnswerNamesAnother",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::wrongCmdorg(6), .times = 3},
                      false,
                      "BurnAgent::vorlan_verify_only: retry sending VERIFY_ONLY for 3 times!",
                      3,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyAnsweredWithSuccess",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::response(0), .times = 3},
                      false,
                      "BurnAgent::vorlan_verify_only: retry sending VERIFY_ONLY for 3 times!",
                      3,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyRefused",
                      {.where = FaultPoint::VerifyOnly, .what = Fault::error("not here")},
                      false,
                      "BurnAgent::vorlan_verify_only: not here",
                      1,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"VerifyFailsInTheEnd",
                      {.where = FaultPoint::GetResult, .what = Fault::error("bad")},
                      false,
                      "BurnAgent::vorlan_verify_only: VERIFY_ONLY command failed!",
                      1,
                      CMD_CODE_VERIFY_ONLY},
            FaultCase{"EraseNotTaken",
                      {.where = FaultPoint::EraseOnly, .what = Fault::refuseWrite()},
                      false,
                      "",
                      1,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseBusyTwice",
                      {.where = FaultPoint::EraseOnly, .what = Fault::response(4), .times = 2},
                      true,
                      "ERASE_ONLY command succeed!",
                      3,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseBusyForGood",
                      {.where = FaultPoint::EraseOnly, .what = Fault::response(4), .times = 3},
                      false,
                      "BurnAgent::vorlan_erase_only: retry sending ERASE_ONLY for 3 times!",
                      3,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseAnswerLostTwice",
                      {.where = FaultPoint::EraseOnly, .what = Fault::silence(), .times = 2},
                      true,
                      "",
                      3,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseAnswerNamesNoCommand",
                      {.where = FaultPoint::EraseOnly, .what = Fault::wrongCmdorg(0)},
                      true,
                      "",
                      1,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseAnswerNamesAnother",
                      {.where = FaultPoint::EraseOnly, .what = Fault::wrongCmdorg(6), .times = 3},
                      false,
                      "BurnAgent::vorlan_erase_only: retry sending ERASE_ONLY for 3 times!",
                      3,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseAnsweredWithSuccess",
                      {.where = FaultPoint::EraseOnly, .what = Fault::response(0), .times = 3},
                      false,
                      "BurnAgent::vorlan_erase_only: retry sending ERASE_ONLY for 3 times!",
                      3,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseRefused",
                      {.where = FaultPoint::EraseOnly, .what = Fault::error("not here")},
                      false,
                      "BurnAgent::vorlan_erase_only: not here",
                      1,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{"EraseFailsInTheEnd",
                      {.where = FaultPoint::GetResult, .what = Fault::error("bad")},
                      false,
                      "BurnAgent::vorlan_erase_only: ERASE_ONLY command failed!",
                      1,
                      CMD_CODE_ERASE_ONLY},
            FaultCase{
                "CrcOfVerifyRefused",
                {.where = FaultPoint::SetCrc64, .what = Fault::error("no crc")},
                false,
                "BurnAgent::vorlan_verify_only: FAILED to set crc64 value into vorlan device!",
                1,
                CMD_CODE_VERIFY_ONLY}),
        testing::Bool()),
    [](const auto& test) {
        return std::get<0>(test.param).name + std::string(std::get<1>(test.param) ? "AtOnce" : "");
    });
