#include "vorlan/burn/fw_download.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include "adminfixture.h"
#include "support/documentedbytes.h"

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;

// Each case with transfers that end inside the call and with such as never do.
class FwDownloadTest : public AdminFixture, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override { bus.deferTransfers(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Transfers, FwDownloadTest, testing::Bool(), [](const auto& test) {
    return std::string(test.param ? "Deferred" : "InTheCall");
});

TEST_P(FwDownloadTest, SendsTheImageInBlocksAndHandsOver) {
    const std::pair<std::size_t, unsigned> sizes[] = {{1, 1}, {2048, 1}, {2049, 2}, {4096, 2}};
    start();
    for (const auto& [size, blocks] : sizes) {
        const std::string image = imageBytes(size);
        directory.write("burner.img", image);
        const auto device = plug("0-1", {.romStartUp = 1ms, .handOver = 50ms});
        ASSERT_TRUE(listener.waitFor("burned 0-1"));
        const std::vector<std::uint8_t> downloaded = device->downloadedBurner();
        EXPECT_EQ(std::string(downloaded.begin(), downloaded.end()), image);
        EXPECT_EQ(device->count(UsbFaultPoint::kMemData), blocks);
        EXPECT_EQ(device->stage(), simulator::UsbStage::kBurner);
        // The ROM stage's handle is gone when the burn begins.
        EXPECT_EQ(bus.openHandles(), 0U);
        bus.unplug("0-1");
        ASSERT_TRUE(listener.waitFor("remove 0-1"));
        listener.clear();
    }
}

TEST_P(FwDownloadTest, ResetsThePipesBeforeItsMessages) {
    directory.write("burner.img", "\xEF");
    start();
    const auto device = plug("0-1", {.recordsTransfers = true});
    ASSERT_TRUE(listener.waitFor("ready 0-1"));
    std::vector<std::vector<std::uint8_t>> sent;
    for (const simulator::UsbTransfer& transfer : device->transfers())
        if (transfer.endpoint == EP_ADDR_DATA_RESP_OUT)
            sent.push_back(transfer.bytes);
    using Bytes = std::vector<std::uint8_t>;
    const Bytes begin{0, 5, 16, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0};
    // The checksum of a single byte 0xEF is 0.
    const Bytes data{0, 7, 17, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xEF};
    const Bytes end{0, 6, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_THAT(sent, testing::ElementsAre(begin, data, end));
    EXPECT_THAT(device->resets(), testing::ElementsAre(0x83, 0x04, 0x85, 0x06));
}

struct RomFaultCase {
    const char* name;
    std::vector<UsbFaultRule> rules;
    const char* reported;  // empty: the download succeeds
};

void PrintTo(const RomFaultCase& test, std::ostream* out) {
    *out << test.name;
}

class FwDownloadFaults : public AdminFixture, public testing::WithParamInterface<RomFaultCase> {};

TEST_P(FwDownloadFaults, AreRetriedAndThenReported) {
    start();
    for (const bool deferred : {false, true}) {
        bus.deferTransfers(deferred);
        plug("0-1", {}, GetParam().rules);
        const std::string reported = GetParam().reported;
        if (reported.empty()) {
            ASSERT_TRUE(listener.waitFor("ready 0-1"));
            EXPECT_EQ(listener.count("error"), 0U);
        } else {
            ASSERT_TRUE(listener.waitFor("error", 1));
            EXPECT_EQ(listener.count("ready"), 0U);
            EXPECT_EQ(listener.events().back(), reported + " 0-1");
        }
        bus.unplug("0-1");
        ASSERT_TRUE(listener.waitFor("remove 0-1"));
        listener.clear();
    }
}

constexpr std::uint32_t kAlways = UsbFaultRule::kAlways;

INSTANTIATE_TEST_SUITE_P(
    Faults, FwDownloadFaults,
    testing::ValuesIn(std::vector<RomFaultCase>{
        {"FatalStatus",
         {{UsbFaultPoint::kMemData, UsbFault::romStatus(0xF0)}},
         "error f0 Return Fatal Error! (retries = 0)"},
        {"FatalStatusAfterAnError",
         {{UsbFaultPoint::kMemData, UsbFault::romStatus(0x05), 1},
          {UsbFaultPoint::kMemData, UsbFault::romStatus(0xFF), 1}},
         "error ff Return Fatal Error! (retries = 1)"},
        {"ErrorStatusNineTimes", {{UsbFaultPoint::kMemData, UsbFault::romStatus(0x05), 0, 9}}, ""},
        {"ErrorStatusForGood",
         {{UsbFaultPoint::kMemBegin, UsbFault::romStatus(0xEF), 0, kAlways}},
         "error ef Retry WritePipe has reaches max (10)!"},
        {"ErrorStatusBehindALostAnswer",
         {{UsbFaultPoint::kMemBegin, UsbFault::silence()},
          {UsbFaultPoint::kMemBegin, UsbFault::romStatus(0x05), 0, kAlways}},
         "error 4c7 Retry WritePipe has reaches max (10)!"},
        {"ShortAnswersForGood",
         {{UsbFaultPoint::kMemBegin, UsbFault::shortAnswer(9), 0, kAlways}},
         "error 1f Retry WritePipe has reaches max (10)!"},
        {"NoAnswerToTheEnd",
         {{UsbFaultPoint::kMemEnd, UsbFault::swallow(), 0, kAlways}},
         "error 4c7 Retry WritePipe has reaches max (10)!"},
        {"AnswerLostOnce", {{UsbFaultPoint::kMemData, UsbFault::silence(), 1, 1}}, ""},
        {"ShortAnswer", {{UsbFaultPoint::kMemData, UsbFault::shortAnswer(9), 0, 2}}, ""},
        {"LateAnswer", {{UsbFaultPoint::kMemBegin, UsbFault::lateAnswer(205ms)}}, ""},
        // Nothing clears the halt before the device is plugged in again.
        {"Stall",
         {{UsbFaultPoint::kMemData, UsbFault::stall(), 1, 2}},
         "error 1f Retry WritePipe has reaches max (10)!"}}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_P(FwDownloadTest, AMissingImageIsToldToNobodyAndAnEmptyOneIs) {
    burnerPath = directory.write("empty.img", "");
    start();
    plug("0-1");
    EXPECT_TRUE(listener.waitFor("error 57 Empty file! path=" + burnerPath + " 0-1"));
    BurnAdmin::destroyInstance();
    listener.clear();

    burnerPath += ".gone";
    start();
    ASSERT_TRUE(listener.waitFor("plug 0-1"));
    // The session keeps its handle until the device leaves.
    ASSERT_TRUE(eventually([&] { return listener.session("0-1")->workerEnded.load(); }));
    EXPECT_EQ(bus.openHandles(), 1U);
    EXPECT_EQ(listener.count("error"), 0U);
    bus.unplug("0-1");
    EXPECT_TRUE(listener.waitFor("remove 0-1"));
}

using DocumentedBurnTest = AdminFixture;

TEST_F(DocumentedBurnTest, GoesOverTheWireAsTheDocumentTells) {
    burnerPath = directory.write("burner.img", "abc");
    const std::wstring image = text::widen(directory.write("image.bin", "123456789"));
    listener.burn = [&](SesHandle session) {
        RecordingListener quiet;
        BurnAgent agent(session->device_id);
        agent.run({{image, 0x100000}}, &quiet, CMD_CODE_FLASH_WRITE);
        EXPECT_TRUE(agent.is_done());
    };
    start();
    const auto device = plug(port(1), {.recordsTransfers = true});
    ASSERT_TRUE(listener.waitFor("burned"));

    std::vector<std::string> said;
    for (const simulator::UsbTransfer& transfer : device->transfers()) {
        const std::string bytes(transfer.bytes.begin(), transfer.bytes.end());
        const bool fromHost = (transfer.endpoint & 0x80) == 0;
        if (fromHost && (said.empty() || said.back() != bytes))
            said.push_back(bytes);
    }
    auto told = documentedBytes("usb-");
    EXPECT_EQ(said, std::vector<std::string>({told["usb-mem-begin"], told["usb-mem-data"],
                                              told["usb-mem-end"], told["usb-sync"],
                                              told["usb-set-crc64"], told["usb-flash-write"],
                                              told["usb-chunk"], told["usb-get-result"]}));
    EXPECT_EQ(told.size(), said.size());
}
