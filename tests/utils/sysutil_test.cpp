#include "utils/sysutil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

TEST(SysUtil, TellsTheMachineItRunsOn) {
    const std::wstring name = sysutil::getOsName();
    EXPECT_GT(name.size(), std::wstring(L"Linux ").size());
    EXPECT_TRUE(name.starts_with(L"Linux ")) << testing::PrintToString(name);
    // A 64-bit program runs on nothing less.
    if (sizeof(void*) == 8) {
        EXPECT_NE(sysutil::is64BitOS(), 0);
    }
}
