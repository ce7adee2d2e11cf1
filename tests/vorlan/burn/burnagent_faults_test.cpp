// What a burn, a verification and an erasure make of each fault of the device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "agentfixture.h"

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
    FaultPoint where;
    Fault what;
    std::uint32_t skip;
    std::uint32_t times;
    bool succeeds;
    std::uint32_t messages;  // of this kind that the host sends in all
    std::string logged;      // part of a line of the run log, empty if none matters
    unsigned mode = CMD_CODE_FLASH_WRITE;
    const char* printed = "";  // part of the standard output
    std::size_t imageSize = 3UL * 4096;
};

void PrintTo(const FaultCase& test, std::ostream* out) {
    *out << test.name;
}

// Each fault, with and without transfers that end inside the call that starts them.
class BurnAgentFaults : public AgentFixture,
                        public testing::WithParamInterface<std::tuple<FaultCase, bool>> {};

TEST_P(BurnAgentFaults, EndTheBurnWithoutAReportOrAreGotOver) {
    const auto& [test, atOnce] = GetParam();
    bus.deferTransfers(!atOnce);
    plug();
    device->addFault({test.where, test.what, test.skip, test.times});
    // Bare flash passes for written with bytes that are all set.
    const std::string image = test.mode == CMD_CODE_FLASH_WRITE
                                  ? imageBytes(test.imageSize)
                                  : std::string(test.imageSize, '\xFF');
    testing::internal::CaptureStdout();
    const auto start = std::chrono::steady_clock::now();
    const bool done = run({item("image.bin", 0x1000, image)}, "SN-1", test.mode);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(test.printed));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << "it waits for what never comes";
    EXPECT_EQ(done, test.succeeds);
    EXPECT_EQ(listener.has("done"), test.succeeds);
    EXPECT_THAT(listener.reports, Not(Contains(HasSubstr("error "))));
    if (test.succeeds) {
        EXPECT_TRUE(flashHolds(0x1000, image));
    }
    EXPECT_EQ(flashHolds(kSnAddress, "SN-1"), test.succeeds);
    EXPECT_TRUE(log.contains(test.logged));
    EXPECT_FALSE(log.contains(std::string(128, 'd'))) << "the text is cut to its buffer";
    EXPECT_EQ(device->count(test.where), test.messages);
}

const std::string kText127(127, 'd');

const std::vector<FaultCase> kBurnFaults = {
    {"BusyTwice", FaultPoint::FlashWrite, Fault::response(4), 0, 2, true, 4,
     "FLASH_WRITE command successful!"},
    {"BusyForGood", FaultPoint::FlashWrite, Fault::response(4), 0, 3, false, 3,
     "BurnAgent::vorlan_burn: retry sending FLASH_WRITE for 3 times!"},
    {"WriteRefused", FaultPoint::FlashWrite, Fault::error("write protected"), 0, 1, false, 1,
     "BurnAgent::vorlan_burn: write protected"},
    {"UnknownAnswerToWrite", FaultPoint::FlashWrite, Fault::response(99), 0, 2, true, 4, ""},
    {"CrcAnswerNamesNoCommand", FaultPoint::SetCrc64, Fault::wrongCmdorg(0), 0, 3, false, 3,
     "BurnAgent::vorlan_set_crc64: retry sending SET_CRC64 for 3 times!"},
    {"CrcRefused", FaultPoint::SetCrc64, Fault::error("no crc"), 0, 1, false, 1,
     "vorlan SET_CRC64 command failed! BurnAgent::vorlan_set_crc64: no crc"},
    {"CrcAnswerLost", FaultPoint::SetCrc64, Fault::silence(), 0, 2, true, 4, ""},
    {"ErrorWithoutText", FaultPoint::Chunk, Fault::error(""), 1, 1, false, 2,
     "BurnAgent::vorlan_burn: \n"},
    {"ErrorTextOf128", FaultPoint::Chunk, Fault::error(std::string(128, 'd')), 0, 1, false, 1,
     kText127},
    {"ErrorTextOf255", FaultPoint::GetResult, Fault::error(std::string(255, 'd')), 0, 1, false, 1,
     kText127},
    {"ErrorTextShorterThanItSays", FaultPoint::Chunk, Fault::error("short", 200), 0, 1, false, 1,
     "BurnAgent::vorlan_burn: short"},
    {"ChunkAnsweredWithSuccess", FaultPoint::Chunk, Fault::response(0), 1, 1, false, 2,
     "FLASH_WRITE command failed!"},
    {"ChunkAnsweredWithOngoing", FaultPoint::Chunk, Fault::response(3), 1, 1, false, 2,
     "FLASH_WRITE command failed!"},
    {"ChunkAnsweredShort", FaultPoint::Chunk, Fault::shortAnswer(15), 0, 1, false, 1,
     "FLASH_WRITE command failed!", CMD_CODE_FLASH_WRITE,
     "BurnAgent::vorlan_burn: failed to read data response, bytes = 15, "
     "ErrorCode = 0x00000000\n"},
    {"ChunkStalls", FaultPoint::Chunk, Fault::stall(), 2, 1, false, 3,
     "FLASH_WRITE command failed!"},
    {"ChunkTakenInPart", FaultPoint::Chunk, Fault::refuseWrite(1000), 0, 1, false, 1,
     "did not complete. ErrorCode=0x000004c7"},
    {"FlashKeepsAWrongByte", FaultPoint::Chunk, Fault::corrupt(7), 1, 1, false, 3,
     "BurnAgent::vorlan_get_result: "},
    {"ResultOfAnotherCommand", FaultPoint::GetResult, Fault::wrongCmdorg(2), 0, 2, true, 4, ""},
    {"ResultWithUnknownCode", FaultPoint::GetResult, Fault::response(77), 0, 2, true, 4, ""},
    {"ResultAnswerLost", FaultPoint::GetResult, Fault::silence(), 0, 1, true, 3, ""},
    {"AnswerCutInTwo", FaultPoint::GetResult, Fault::cutAnswer(8, 300ms), 0, 1, true, 2, "",
     CMD_CODE_FLASH_WRITE,
     "Read endpoint(ep_addr = 0x85) cancelled. bytes_read = 8, ErrorCode=0x000004c7\n"},
    {"SyncNotTaken", FaultPoint::Sync, Fault::refuseWrite(), 0, 1, true, 2, ""},
    {"SyncTakenInPart", FaultPoint::Sync, Fault::shortWrite(15), 0, 1, true, 2, ""},
    {"SyncBusyTwice", FaultPoint::Sync, Fault::response(4), 0, 2, true, 3, ""},
    {"SyncAnsweredByNobody", FaultPoint::Sync, Fault::wrongCmdorg(0), 0, 1, true, 1, ""},
    {"SyncAnsweredShort", FaultPoint::Sync, Fault::shortAnswer(15), 0, 1, true, 2, ""},
    {"ResultAnsweredShort", FaultPoint::GetResult, Fault::shortAnswer(15), 0, 1, true, 3, ""},
    {"CrcNotTaken", FaultPoint::SetCrc64, Fault::refuseWrite(), 0, 1, false, 1,
     "BurnAgent::vorlan_burn: FAILED to set crc64 value into vorlan device!"},
    {"CrcBusyTwice", FaultPoint::SetCrc64, Fault::response(4), 0, 2, true, 4, ""},
    {"WriteNotTaken", FaultPoint::FlashWrite, Fault::refuseWrite(), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"WriteTakenInPart", FaultPoint::FlashWrite, Fault::shortWrite(15), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"WriteAnswerNamesAnything", FaultPoint::FlashWrite, Fault::wrongCmdorg(77), 0,
     FaultRule::kAlways, true, 2, ""},
    {"LastChunkAnswerNamesAnything", FaultPoint::Chunk, Fault::wrongCmdorg(77), 2, 1, true, 4, ""},
    {"ChunkEndsShort", FaultPoint::Chunk, Fault::shortWrite(4095), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"ResultNotTaken", FaultPoint::GetResult, Fault::refuseWrite(), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"ResultAnswerNamesNoCommand", FaultPoint::GetResult, Fault::wrongCmdorg(0), 0,
     FaultRule::kAlways, true, 2, ""},
    {"EmptyImageIsAskedForOnce", FaultPoint::GetResult, Fault::response(3), 0, FaultRule::kAlways,
     false, 1, "BurnAgent::vorlan_get_result: timeout!", CMD_CODE_FLASH_WRITE, "", 0},
    {"CrcOfVerifyRefused", FaultPoint::SetCrc64, Fault::error("no crc"), 0, 1, false, 1,
     "BurnAgent::vorlan_verify_only: FAILED to set crc64 value into vorlan device!",
     CMD_CODE_VERIFY_ONLY}};

// Faults of a verification, an erasure.
std::vector<FaultCase> faultsOf(unsigned mode, FaultPoint where, const std::string& command,
                                const std::string& operation) {
    const std::string tooOften = operation + ": retry sending " + command + " for 3 times!";
    return {
        {"BusyTwice", where, Fault::response(4), 0, 2, true, 3, command + " command succeed!",
         mode},
        {"AnswerNamesNoCommand", where, Fault::wrongCmdorg(0), 0, 1, true, 1, "", mode},
        {"AnswerNamesAnother", where, Fault::wrongCmdorg(6), 0, 3, false, 3, tooOften, mode},
        {"AnsweredWithSuccess", where, Fault::response(0), 0, 3, false, 3, tooOften, mode},
        {"Refused", where, Fault::error("not here"), 0, 1, false, 1, operation + ": not here",
         mode},
        {"FailsInTheEnd", FaultPoint::GetResult, Fault::error("bad"), 0, 1, false, 1,
         operation + ": " + command + " command failed!", mode},
    };
}

const auto nameOf = [](const auto& test) {
    return std::get<0>(test.param).name + std::string(std::get<1>(test.param) ? "AtOnce" : "");
};

INSTANTIATE_TEST_SUITE_P(Burn, BurnAgentFaults,
                         testing::Combine(testing::ValuesIn(kBurnFaults), testing::Bool()), nameOf);
INSTANTIATE_TEST_SUITE_P(
    Verify, BurnAgentFaults,
    testing::Combine(testing::ValuesIn(faultsOf(CMD_CODE_VERIFY_ONLY, FaultPoint::VerifyOnly,
                                                "VERIFY_ONLY", "BurnAgent::vorlan_verify_only")),
                     testing::Bool()),
    nameOf);
INSTANTIATE_TEST_SUITE_P(
    Erase, BurnAgentFaults,
    testing::Combine(testing::ValuesIn(faultsOf(CMD_CODE_ERASE_ONLY, FaultPoint::EraseOnly,
                                                "ERASE_ONLY", "BurnAgent::vorlan_erase_only")),
                     testing::Bool()),
    nameOf);
