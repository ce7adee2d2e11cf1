#include "simulator/flash.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "simulator/crc64.h"

namespace simulator {
namespace {

using testing::ElementsAre;

std::vector<std::uint8_t> counting(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    return bytes;
}

TEST(Crc64, HasTheKnownCheckValues) {
    const auto crcOf = [](std::string_view text) {
        return crc64(0, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    };
    EXPECT_EQ(crcOf("123456789"), 0xE9C6D914C4B8D9CAU);
    EXPECT_EQ(crcOf("abc"), 0x4431BB39B27363A7U);
    EXPECT_EQ(crcOf(""), 0U);
}

TEST(Flash, KeepsBytesAcrossPagesUpToTheEndOfTheAddressSpace) {
    Flash flash;
    const std::vector<std::uint8_t> bytes = counting(6000);
    flash.program(0xFFC, bytes);
    flash.program(UINT32_MAX - 3, counting(4));
    EXPECT_EQ(flash.read(0xFFC, 6000), bytes);
    EXPECT_TRUE(flash.holds(0xFFC, bytes));
    EXPECT_FALSE(flash.holds(0xFFB, bytes));
    EXPECT_EQ(flash.read(0xFFA, 3), (std::vector<std::uint8_t>{0xFF, 0xFF, 1}));
    EXPECT_EQ(flash.read(0xFFC + 6000, 1), std::vector<std::uint8_t>{0xFF});
    EXPECT_EQ(flash.crc64(0xFFC, 6000), crc64(0, bytes));

    flash.erase(0x1000, 0x1000);  // a whole page, and no more
    EXPECT_EQ(flash.read(0xFFF, 3), (std::vector<std::uint8_t>{4, 0xFF, 0xFF}));
    EXPECT_EQ(flash.read(0x2000, 1), std::vector<std::uint8_t>{bytes[0x2000 - 0xFFC]});
    flash.erase(0xFFE, 1);  // a part of one
    EXPECT_EQ(flash.read(0xFFD, 3), (std::vector<std::uint8_t>{2, 0xFF, 4}));
    flash.erase(0, std::uint64_t{1} << 32);
    EXPECT_FALSE(flash.holds(UINT32_MAX, counting(1)));
}

TEST(Flash, TellsWhatWasWritten) {
    using Range = Flash::Range;
    Flash flash;
    EXPECT_TRUE(flash.writtenRanges().empty());
    flash.program(100, counting(10));
    flash.program(200, counting(10));
    flash.program(300, {});
    EXPECT_THAT(flash.writtenRanges(), ElementsAre(Range{100, 10}, Range{200, 10}));
    flash.program(110, counting(5));  // adjoins the first
    flash.program(195, counting(5));  // adjoins the second
    flash.program(104, counting(2));  // within
    EXPECT_THAT(flash.writtenRanges(), ElementsAre(Range{100, 15}, Range{195, 15}));
    flash.program(50, counting(170));  // covers all
    EXPECT_THAT(flash.writtenRanges(), ElementsAre(Range{50, 170}));
}

}  // namespace
}  // namespace simulator
