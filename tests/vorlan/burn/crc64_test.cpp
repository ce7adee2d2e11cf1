#include "vorlan/burn/crc64.h"

#include <gtest/gtest.h>

#include <random>
#include <string_view>
#include <vector>

#include "simulator/crc64.h"

TEST(Crc64, KnownAnswers) {
    const auto crcOf = [](std::string_view text) {
        return crc64(0, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    };
    EXPECT_EQ(crcOf(""), 0U);
    EXPECT_EQ(crcOf("123456789"), 0xE9C6D914C4B8D9CAU);
    EXPECT_EQ(crcOf("abc"), 0x4431BB39B27363A7U);
}

// The device's own goes byte by byte.
TEST(Crc64, EqualsTheDevicesAtEveryLengthAlignmentAndStart) {
    std::mt19937_64 random(1);
    std::vector<std::uint8_t> data(4096 + 16);
    for (std::uint8_t& byte : data)
        byte = static_cast<std::uint8_t>(random());
    for (std::size_t offset = 0; offset < 16; offset += 5) {
        for (std::size_t size = 0; size <= 700; ++size) {
            const std::uint64_t start = random();
            ASSERT_EQ(crc64(start, &data[offset], size),
                      simulator::crc64(start, {&data[offset], size}))
                << "offset " << offset << ", size " << size;
        }
        EXPECT_EQ(crc64(0, &data[offset], 4096), simulator::crc64(0, {&data[offset], 4096}));
    }
}
