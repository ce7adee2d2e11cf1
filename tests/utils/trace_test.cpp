#include "utils/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "support/helpers.h"

namespace {

template <typename Body>
std::string traceOf(Body body) {
    return outputOf(body).traced;
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
