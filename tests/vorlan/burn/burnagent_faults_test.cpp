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
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// How a command ends that meets a fault on the open device.
struct FaultCase {
    const char* name;
    UsbFaultPoint where;
    UsbFault what;
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
    {"BusyTwice", UsbFaultPoint::kFlashWrite, UsbFault::response(4), 0, 2, true, 4,
     "FLASH_WRITE command successful!"},
    {"BusyForGood", UsbFaultPoint::kFlashWrite, UsbFault::response(4), 0, 3, false, 3,
     "BurnAgent::vorlan_burn: retry sending FLASH_WRITE for 3 times!"},
    {"WriteRefused", UsbFaultPoint::kFlashWrite, UsbFault::error("write protected"), 0, 1, false, 1,
     "BurnAgent::vorlan_burn: write protected"},
    {"UnknownAnswerToWrite", UsbFaultPoint::kFlashWrite, UsbFault::response(99), 0, 2, true, 4, ""},
    {"CrcAnswerNamesNoCommand", UsbFaultPoint::kSetCrc64, UsbFault::wrongCmdorg(0), 0, 3, false, 3,
     "BurnAgent::vorlan_set_crc64: retry sending SET_CRC64 for 3 times!"},
    {"CrcRefused", UsbFaultPoint::kSetCrc64, UsbFault::error("no crc"), 0, 1, false, 1,
     "vorlan SET_CRC64 command failed! BurnAgent::vorlan_set_crc64: no crc"},
    {"CrcAnswerLost", UsbFaultPoint::kSetCrc64, UsbFault::silence(), 0, 2, true, 4, ""},
    {"ErrorWithoutText", UsbFaultPoint::kChunk, UsbFault::error(""), 1, 1, false, 2,
     "BurnAgent::vorlan_burn: \n"},
    {"ErrorTextOf128", UsbFaultPoint::kChunk, UsbFault::error(std::string(128, 'd')), 0, 1, false,
     1, kText127},
    {"ErrorTextOf255", UsbFaultPoint::kGetResult, UsbFault::error(std::string(255, 'd')), 0, 1,
     false, 1, kText127},
    {"ErrorTextShorterThanItSays", UsbFaultPoint::kChunk, UsbFault::error("short", 200), 0, 1,
     false, 1, "BurnAgent::vorlan_burn: short"},
    {"ChunkAnsweredWithSuccess", UsbFaultPoint::kChunk, UsbFault::response(0), 1, 1, false, 2,
     "FLASH_WRITE command failed!"},
    {"ChunkAnsweredWithOngoing", UsbFaultPoint::kChunk, UsbFault::response(3), 1, 1, false, 2,
     "FLASH_WRITE command failed!"},
    {"ChunkAnsweredShort", UsbFaultPoint::kChunk, UsbFault::shortAnswer(15), 0, 1, false, 1,
     "FLASH_WRITE command failed!", CMD_CODE_FLASH_WRITE,
     "BurnAgent::vorlan_burn: failed to read data response, bytes = 15, "
     "ErrorCode = 0x00000000\n"},
    {"ChunkStalls", UsbFaultPoint::kChunk, UsbFault::stall(), 2, 1, false, 3,
     "FLASH_WRITE command failed!"},
    {"ChunkTakenInPart", UsbFaultPoint::kChunk, UsbFault::refuseWrite(1000), 0, 1, false, 1,
     "did not complete. ErrorCode=0x000004c7"},
    {"FlashKeepsAWrongByte", UsbFaultPoint::kChunk, UsbFault::corrupt(7), 1, 1, false, 3,
     "BurnAgent::vorlan_get_result: "},
    {"ResultOfAnotherCommand", UsbFaultPoint::kGetResult, UsbFault::wrongCmdorg(2), 0, 2, true, 4,
     ""},
    {"ResultWithUnknownCode", UsbFaultPoint::kGetResult, UsbFault::response(77), 0, 2, true, 4, ""},
    {"ResultAnswerLost", UsbFaultPoint::kGetResult, UsbFault::silence(), 0, 1, true, 3, ""},
    {"AnswerCutInTwo", UsbFaultPoint::kGetResult, UsbFault::cutAnswer(8, 300ms), 0, 1, true, 2, "",
     CMD_CODE_FLASH_WRITE,
     "Read endpoint(ep_addr = 0x85) cancelled. bytes_read = 8, ErrorCode=0x000004c7\n"},
    {"SyncNotTaken", UsbFaultPoint::kSync, UsbFault::refuseWrite(), 0, 1, true, 2, ""},
    {"SyncTakenInPart", UsbFaultPoint::kSync, UsbFault::shortWrite(15), 0, 1, true, 2, ""},
    {"SyncBusyTwice", UsbFaultPoint::kSync, UsbFault::response(4), 0, 2, true, 3, ""},
    {"SyncAnsweredByNobody", UsbFaultPoint::kSync, UsbFault::wrongCmdorg(0), 0, 1, true, 1, ""},
    {"SyncAnsweredShort", UsbFaultPoint::kSync, UsbFault::shortAnswer(15), 0, 1, true, 2, ""},
    {"ResultAnsweredShort", UsbFaultPoint::kGetResult, UsbFault::shortAnswer(15), 0, 1, true, 3,
     ""},
    {"CrcNotTaken", UsbFaultPoint::kSetCrc64, UsbFault::refuseWrite(), 0, 1, false, 1,
     "BurnAgent::vorlan_burn: FAILED to set crc64 value into vorlan device!"},
    {"CrcBusyTwice", UsbFaultPoint::kSetCrc64, UsbFault::response(4), 0, 2, true, 4, ""},
    {"WriteNotTaken", UsbFaultPoint::kFlashWrite, UsbFault::refuseWrite(), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"WriteTakenInPart", UsbFaultPoint::kFlashWrite, UsbFault::shortWrite(15), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"WriteAnswerNamesAnything", UsbFaultPoint::kFlashWrite, UsbFault::wrongCmdorg(77), 0,
     UsbFaultRule::kAlways, true, 2, ""},
    {"LastChunkAnswerNamesAnything", UsbFaultPoint::kChunk, UsbFault::wrongCmdorg(77), 2, 1, true,
     4, ""},
    {"ChunkEndsShort", UsbFaultPoint::kChunk, UsbFault::shortWrite(4095), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"ResultNotTaken", UsbFaultPoint::kGetResult, UsbFault::refuseWrite(), 0, 1, false, 1,
     "FLASH_WRITE command failed!"},
    {"ResultAnswerNamesNoCommand", UsbFaultPoint::kGetResult, UsbFault::wrongCmdorg(0), 0,
     UsbFaultRule::kAlways, true, 2, ""},
    {"EmptyImageIsAskedForOnce", UsbFaultPoint::kGetResult, UsbFault::response(3), 0,
     UsbFaultRule::kAlways, false, 1, "BurnAgent::vorlan_get_result: timeout!",
     CMD_CODE_FLASH_WRITE, "", 0},
    {"CrcOfVerifyRefused", UsbFaultPoint::kSetCrc64, UsbFault::error("no crc"), 0, 1, false, 1,
     "BurnAgent::vorlan_verify_only: FAILED to set crc64 value into vorlan device!",
     CMD_CODE_VERIFY_ONLY}};

// Faults of a verification, an erasure.
std::vector<FaultCase> faultsOf(unsigned mode, UsbFaultPoint where, const std::string& command,
                                const std::string& operation) {
    const std::string tooOften = operation + ": retry sending " + command + " for 3 times!";
    return {
        {"BusyTwice", where, UsbFault::response(4), 0, 2, true, 3, command + " command succeed!",
         mode},
        {"AnswerNamesNoCommand", where, UsbFault::wrongCmdorg(0), 0, 1, true, 1, "", mode},
        {"AnswerNamesAnother", where, UsbFault::wrongCmdorg(6), 0, 3, false, 3, tooOften, mode},
        {"AnsweredWithSuccess", where, UsbFault::response(0), 0, 3, false, 3, tooOften, mode},
        {"Refused", where, UsbFault::error("not here"), 0, 1, false, 1, operation + ": not here",
         mode},
        {"FailsInTheEnd", UsbFaultPoint::kGetResult, UsbFault::error("bad"), 0, 1, false, 1,
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
    testing::Combine(testing::ValuesIn(faultsOf(CMD_CODE_VERIFY_ONLY, UsbFaultPoint::kVerifyOnly,
                                                "VERIFY_ONLY", "BurnAgent::vorlan_verify_only")),
                     testing::Bool()),
    nameOf);
INSTANTIATE_TEST_SUITE_P(
    Erase, BurnAgentFaults,
    testing::Combine(testing::ValuesIn(faultsOf(CMD_CODE_ERASE_ONLY, UsbFaultPoint::kEraseOnly,
                                                "ERASE_ONLY", "BurnAgent::vorlan_erase_only")),
                     testing::Bool()),
    nameOf);
