#include "utils/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

template <typename Body>
std::string traceOf(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(Trace, NamesFileAndLineBeforeTheMessage) {
    EXPECT_EQ(traceOf([] { traceMessage("burn.cpp", 12, "SN=%s, %d\n", "A1", 3); }),
              "burn.cpp(12): atlTraceGeneral - SN=A1, 3\n");
    EXPECT_EQ(traceOf([] { traceMessage("burn.cpp", 12, L"%ls %d\n", L"\u4E2D", 4); }),
              "burn.cpp(12): atlTraceGeneral - \xE4\xB8\xAD 4\n");
    const std::string here = std::to_string(__LINE__ + 1);
    EXPECT_EQ(traceOf([] { TRACE("x"); }), "trace_test.cpp(" + here + "): atlTraceGeneral - x");
}

TEST(Trace, DropsMessagesThatDoNotFit) {
    const std::string most(1023, 'n');
    const std::wstring wideMost(1023, L'w');
    const std::string prefix = "f(1): atlTraceGeneral - ";
    EXPECT_EQ(traceOf([&] { traceMessage("f", 1, "%s", most.c_str()); }), prefix + most);
    EXPECT_EQ(traceOf([&] { traceMessage("f", 1, "%s+", most.c_str()); }), "");
    EXPECT_EQ(traceOf([&] { traceMessage("f", 1, L"%ls", wideMost.c_str()); }),
              prefix + std::string(1023, 'w'));
    EXPECT_EQ(traceOf([&] { traceMessage("f", 1, L"%ls+", wideMost.c_str()); }), "");
}

TEST(Trace, KeepsLinesOfManyThreadsWhole) {
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    std::multiset<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread)
        for (int i = 0; i < kLines; ++i)
            expected.insert("f(" + std::to_string(thread) + "): atlTraceGeneral - " +
                            std::string(50, static_cast<char>('a' + thread)));
    const std::string trace = traceOf([] {
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([thread] {
                const std::string text(50, static_cast<char>('a' + thread));
                for (int i = 0; i < kLines; ++i)
                    traceMessage("f", thread, "%s\n", text.c_str());
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    std::multiset<std::string> lines;
    std::istringstream stream(trace);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    EXPECT_EQ(lines, expected);
}
