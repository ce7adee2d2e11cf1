#include "utils/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "support/helpers.h"

TEST(Trace, NamesFileAndLineAndDropsWhatDoesNotFit) {
    const std::string here = std::to_string(__LINE__ + 1);
    EXPECT_EQ(outputOf([] { TRACE("%d\n", 3); }).traced,
              "trace_test.cpp(" + here + "): atlTraceGeneral - 3\n");
    const std::string most(1023, 'n');
    const std::wstring wideMost = std::wstring(1022, L'w') + L'\u4E2D';
    const std::string prefix = "f(1): atlTraceGeneral - ";
    const Output output = outputOf([&] {
        traceMessage("f", 1, "%s", most.c_str());
        traceMessage("f", 1, "%s+", most.c_str());
        traceMessage("f", 1, L"%ls", wideMost.c_str());
        traceMessage("f", 1, L"%ls+", wideMost.c_str());
    });
    EXPECT_EQ(output.traced, prefix + most + prefix + std::string(1022, 'w') + "\xE4\xB8\xAD");
}
