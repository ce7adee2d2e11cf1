#include "vorlan/burn/burn_limits.h"

#include <gtest/gtest.h>

TEST(BurnLimits, FollowFromTheStartedMiBs) {
    constexpr std::uint32_t kMiB = 0x100000;
    const struct {
        std::uint32_t size;
        std::uint32_t chunkSeconds;
        std::uint32_t writeMs;
        std::uint32_t scanMs;
        std::uint32_t writePolls;
    } cases[] = {
        {0, 0, 0, 0, 1},
        {1, 15, 30'000, 10'000, 301},
        {15, 15, 30'000, 10'000, 301},
        {kMiB, 15, 30'000, 10'000, 301},
        {kMiB + 1, 30, 60'000, 20'000, 601},
        {0xFFFFFFFF, 61'440, 122'880'000, 40'960'000, 1'228'801},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(maxChunkWait(c.size), c.chunkSeconds) << c.size;
        EXPECT_EQ(writeResultTimeout(c.size, true), c.writeMs) << c.size;
        EXPECT_EQ(writeResultTimeout(c.size, false), c.writeMs / 2) << c.size;
        EXPECT_EQ(scanResultTimeout(c.size), c.scanMs) << c.size;
        EXPECT_EQ(resultPolls(writeResultTimeout(c.size, true)), c.writePolls) << c.size;
    }
    EXPECT_EQ(resultPolls(99), 1U);
    EXPECT_EQ(resultPolls(100), 2U);
}
