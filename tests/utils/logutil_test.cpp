#include "utils/logutil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "platform/process.h"
#include "support/helpers.h"
#include "support/recordinglog.h"

using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

[[gnu::format(printf, 4, 5)]] std::string format(int level, const char* tag, int line,
                                                 const char* text, ...) {
    std::va_list arguments;
    va_start(arguments, text);
    std::string result = hj::formatLogLine(level, tag, line, text, arguments);
    va_end(arguments);
    return result;
}

std::string hex8(std::uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", value);
    return text;
}

// Where the level letter begins: behind the bracketed time and the two bracketed ids.
constexpr std::size_t kLevelColumn = 54;

}  // namespace

TEST(LogLine, HasAHeaderOf80ColumnsWithTheCallersThread) {
    std::string line;
    std::string thread;
    std::thread([&] {
        line = format(hj::kError, "SerialAvatar", 92, "port %s, code=%d", "x", -3);
        thread = hex8(platform::threadId());
    }).join();
    EXPECT_NE(thread, hex8(platform::threadId()));
    EXPECT_THAT(line, MatchesRegex("\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
                                   "[0-9]{3}\\] \\[P0x" +
                                   hex8(platform::processId()) + "\\] \\[T0x" + thread +
                                   "\\] E/SerialAvatar\\(line 92\\) +:port x, code=-3"));
    EXPECT_EQ(line.substr(80), " :port x, code=-3");
    EXPECT_EQ(line.find("E/SerialAvatar"), kLevelColumn);
}

// The log's readers know the second before the minute.
TEST(LogLine, TellsTheLocalTimeWithTheSecondBeforeTheMinute) {
    // Not std::time(), which lags behind by a tick.
    const auto now = [] {
        return std::chrono::system_clock::to_time_t(
            std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
    };
    std::time_t time = 0;
    std::string line;
    do {
        time = now();
        line = format(hj::kInfo, "t", 1, "m");
    } while (now() != time);  // else the second is in doubt
    std::tm local{};
    ASSERT_NE(localtime_r(&time, &local), nullptr);
    char expected[64];
    std::strftime(expected, sizeof expected, "[%Y-%m-%d %H:%S:%M ", &local);
    EXPECT_EQ(line.substr(0, 21), expected);
}

TEST(LogLine, CutsTagAndMessageButNoLongHeader) {
    EXPECT_THAT(format(hj::kWarning, "vorlan_device", 7, "m"),
                HasSubstr("] W/vorlan_devic(line 7) "));
    const std::string most(10'239, 'm');
    EXPECT_EQ(format(hj::kInfo, "t", 1, "%sX", most.c_str()).substr(82), most);
    // An unknown level has no letter.
    EXPECT_EQ(format(4, "SerialAvatar", 2'147'483'647, "m").substr(kLevelColumn),
              "/SerialAvatar(line 2147483647) :m");
}

TEST(Log, EachOperationHasItsLevelAndDRanksAboveI) {
    RecordingLog log;
    const auto logAll = [] {
        hj::logI("tag", 1, "%d", 10);
        hj::logD("tag", 2, "%d", 20);
        hj::logW("tag", 3, "%d", 30);
        hj::logE("tag", 4, "%d", 40);
    };
    const auto lettersOfLevels = [&] {
        std::string letters;
        for (const auto& [level, line] : log.takeAll())
            letters += std::to_string(level) + line.at(kLevelColumn);
        return letters;
    };
    logAll();
    EXPECT_EQ(lettersOfLevels(), "0I1D2W3E");
    hj::setLogLevel(hj::kDebug);
    logAll();
    EXPECT_EQ(lettersOfLevels(), "1D2W3E");
    hj::setLogLevel(0);
}

TEST(Log, WithoutAPrinterLinesGoToTheTraceWithTagAndSourceLine) {
    constexpr const char* LOG_TAG = "ThisModule";
    { RecordingLog gone; }
    const std::string here = std::to_string(__LINE__ + 1);
    const Output output = outputOf([] { LOG_W("in the trace"); });
    EXPECT_THAT(output.traced, MatchesRegex("logutil.cpp\\([0-9]+\\): atlTraceGeneral - \\[.*\\] "
                                            "W/ThisModule\\(line " +
                                            here + "\\) +:in the trace\n"));
}
