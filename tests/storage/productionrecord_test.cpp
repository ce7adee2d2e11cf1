#include "storage/productionrecord.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/helpers.h"
#include "support/systemlimits.h"
#include "support/temporarydirectory.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

const std::string kFile = "log/record.csv";
const std::string kHeader =
    "\xEF\xBB\xBF\"时间\",\"方式\",\"端口\",\"标签\",\"固件包\",\"固件包SHA-256\",\"SN号\","
    "\"SN烧录地址\",\"结果\",\"最后状态\",\"用时（秒）\"\r\n";

class ProductionRecordTest : public testing::Test {
  protected:
    static BurnEnd failureAt(const std::string& place) {
        return {.road = BurnEnd::Road::kSerial, .place = place};
    }
    static std::string places() {
        std::string found;
        const std::string content = contentOf(kFile);
        const std::string before = ",\"串口\",\"";
        for (auto at = content.find(before); at != std::string::npos;
             at = content.find(before, at + 1))
            found += content.substr(at + before.size(), 1);
        return found;
    }

    EnteredDirectory directory_;
    ProductionRecord record_;
};

}  // namespace

TEST_F(ProductionRecordTest, TellsAllOfABurnInOneRowOfQuotedFields) {
    ::setenv("TZ", "CST-8", 1);  // NOLINT(concurrency-mt-unsafe)
    ::tzset();
    EXPECT_EQ(record_.append({.place = "USB\\VID_1234&PID_5678\\2-1",
                              .label = L"\u5DE6 \"1\"\n\u4E0A",
                              .package = {L"/\u56FA\u4EF6/a, b.vrk", "0a1b"},
                              .sn = "SN-1",
                              .snAddress = 0x7FF004,
                              .good = true,
                              .tileText = L"\u70E7\u5F55\u6210\u529F\uFF01SN=SN-1",
                              .duration = 12'340ms}),
              "");
    EXPECT_EQ(record_.append({.road = BurnEnd::Road::kSerial,
                              .place = "ttyUSB0",
                              .snAddress = 0x7FF004,
                              .reason = "stopped",
                              .tileText = L"\u51FA\u9519"}),
              "");
    ::unsetenv("TZ");  // NOLINT(concurrency-mt-unsafe)
    ::tzset();
    const std::string content = contentOf(kFile);
    ASSERT_TRUE(content.starts_with(kHeader));
    const std::string time = "\"20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\+08:00\"";
    EXPECT_THAT(
        content.substr(kHeader.size()),
        testing::MatchesRegex(
            time +
            ",\"USB\",\"USB\\\\VID_1234&PID_5678\\\\2-1\",\"左 \"\"1\"\" 上\",\"/固件/a, b.vrk\","
            "\"0a1b\",\"SN-1\",\"0x7ff004\",\"成功\",\"烧录成功！SN=SN-1\",\"12.3\"\r\n" +
            time + ",\"串口\",\"ttyUSB0\",\"\",\"\",\"\",\"\",\"\",\"失败\",\"出错\",\"0.0\"\r\n"));
}

TEST_F(ProductionRecordTest, GoesOnWhereTheRunBeforeEndedAndSetsATornRowAside) {
    ASSERT_EQ(ProductionRecord().append(failureAt("A")), "");
    const std::string whole = contentOf(kFile);
    writeContent(kFile, whole + "\"2026-03-01T0");
    ASSERT_EQ(ProductionRecord().append(failureAt("B")), "");
    EXPECT_TRUE(contentOf(kFile).starts_with(whole + "\"20"));
    EXPECT_EQ(places(), "AB");
    EXPECT_EQ(contentOf("log/record.torn"), "\"2026-03-01T0\r\n");

    // Nothing whole, not even the header.
    writeContent(kFile, kHeader.substr(0, 20));
    ASSERT_EQ(ProductionRecord().append(failureAt("C")), "");
    EXPECT_TRUE(contentOf(kFile).starts_with(kHeader + "\"20"));
    EXPECT_EQ(places(), "C");
    EXPECT_EQ(contentOf("log/record.torn"), "\"2026-03-01T0\r\n" + kHeader.substr(0, 20) + "\r\n");
}

TEST_F(ProductionRecordTest, EachMonthHasItsOwnFile) {
    const auto rowOf = [](const std::string& time) { return kHeader + "\"" + time + "\",\r\n"; };
    writeContent(kFile, rowOf("2001-02-28T23:59:59+08:00"));
    ASSERT_EQ(record_.append(failureAt("A")), "");
    ASSERT_EQ(record_.append(failureAt("B")), "");
    EXPECT_EQ(contentOf("log/record-2001-02.csv"), rowOf("2001-02-28T23:59:59+08:00"));
    EXPECT_EQ(places(), "AB");
    EXPECT_TRUE(contentOf(kFile).starts_with(kHeader));

    // The clock was wrong for a while: no file takes another's place.
    writeContent(kFile, rowOf("2001-02-01T00:00:00+08:00"));
    ASSERT_EQ(record_.append(failureAt("C")), "");
    EXPECT_EQ(contentOf("log/record-2001-02.csv"), rowOf("2001-02-28T23:59:59+08:00"));
    EXPECT_EQ(contentOf("log/record-2001-02-2.csv"), rowOf("2001-02-01T00:00:00+08:00"));
    EXPECT_EQ(places(), "C");

    // What tells no month, since somebody else has had his hands on it, stays where it is.
    for (const std::string other : {"", "x\r\n", "x\r\n\"", "x\nsomebody\n"}) {
        writeContent(kFile, other);
        ASSERT_EQ(record_.append(failureAt("D")), "") << other;
        EXPECT_EQ(places(), "D");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator("log"), {}), 4) << "with the torn rows";
}

TEST_F(ProductionRecordTest, BeginsAnewWhereSomebodyHasTakenTheFileAway) {
    ASSERT_EQ(record_.append(failureAt("A")), "");
    fs::rename("log", "kept");
    ASSERT_EQ(record_.append(failureAt("B")), "");
    EXPECT_TRUE(contentOf(kFile).starts_with(kHeader));
    EXPECT_EQ(places(), "B");
}

TEST_F(ProductionRecordTest, ARowThatDoesNotFitOnTheDiskLeavesNothingBehind) {
    ASSERT_EQ(record_.append(failureAt("A")), "");
    const std::string before = contentOf(kFile);
    {
        const FullDisk disk(before.size() + 10);
        EXPECT_EQ(record_.append(failureAt("B")), "File too large");
    }
    EXPECT_EQ(contentOf(kFile), before);
    EXPECT_EQ(record_.append(failureAt("C")), "");
    EXPECT_EQ(places(), "AC");
}

TEST_F(ProductionRecordTest, TwoCopiesDoNotMixTheirRows) {
    ASSERT_EQ(record_.append(failureAt("A")), "");
    ProductionRecord other;
    EXPECT_EQ(other.append(failureAt("B")), "another copy of the program writes to it");
    EXPECT_EQ(record_.append(failureAt("C")), "");
    EXPECT_EQ(places(), "AC");
}

TEST_F(ProductionRecordTest, TellsWhyThereIsNone) {
    writeContent("log", "a file");
    EXPECT_EQ(record_.append(failureAt("A")), "Not a directory");
    fs::remove("log");
    fs::create_directories(kFile);
    EXPECT_NE(record_.append(failureAt("A")), "");
    fs::remove(kFile);
    EXPECT_EQ(record_.append(failureAt("B")), "");
    EXPECT_EQ(places(), "B");
}

TEST_F(ProductionRecordTest, SixteenBurnsThatEndTogetherAreSixteenRows) {
    {
        std::vector<std::jthread> workers;
        workers.reserve(16);
        for (int worker = 0; worker < 16; ++worker) {
            workers.emplace_back([this] {
                for (int i = 0; i < 20; ++i)
                    EXPECT_EQ(record_.append({.place = "P", .good = i % 2 == 0}), "");
            });
        }
    }
    const std::string content = contentOf(kFile);
    EXPECT_EQ(occurrences(content, ",\"USB\",\"P\","), 320U);
    EXPECT_EQ(occurrences(content, ",\"0.0\"\r\n\"20"), 319U);
}
