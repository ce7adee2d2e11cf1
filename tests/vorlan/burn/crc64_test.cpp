#include "vorlan/burn/crc64.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string_view>
#include <vector>

namespace {

std::uint64_t crcOf(std::string_view text) {
    return crc64(0, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// The rule as the device's makers give it: one table, one byte at a time.
class TableRule {
  public:
    TableRule() {
        for (std::size_t byte = 0; byte < table_.size(); ++byte) {
            std::uint64_t value = byte;
            for (int bit = 0; bit < 8; ++bit)
                value = (value & 1) != 0 ? (value >> 1) ^ 0x95AC9329AC4BC9B5 : value >> 1;
            table_[byte] = value;
        }
    }

    std::uint64_t operator()(std::uint64_t crc, const std::uint8_t* data, std::size_t size) const {
        for (std::size_t i = 0; i < size; ++i)
            crc = table_[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
        return crc;
    }

  private:
    std::array<std::uint64_t, 256> table_;
};

}  // namespace

TEST(Crc64, KnownAnswers) {
    EXPECT_EQ(crcOf(""), 0U);
    EXPECT_EQ(crcOf("123456789"), 0xE9C6D914C4B8D9CAU);
    EXPECT_EQ(crcOf("abc"), 0x4431BB39B27363A7U);
}

TEST(Crc64, EqualsTheTableRuleAtEveryLengthAlignmentAndStart) {
    std::mt19937_64 random(1);
    std::vector<std::uint8_t> data(4096 + 16);
    for (std::uint8_t& byte : data)
        byte = static_cast<std::uint8_t>(random());
    const TableRule rule;
    for (std::size_t offset = 0; offset < 16; offset += 5) {
        for (std::size_t size = 0; size <= 700; ++size) {
            const std::uint64_t start = random();
            ASSERT_EQ(crc64(start, &data[offset], size), rule(start, &data[offset], size))
                << "offset " << offset << ", size " << size;
        }
        EXPECT_EQ(crc64(0, &data[offset], 4096), rule(0, &data[offset], 4096));
    }
}

TEST(Crc64, ContinuesAcrossAnySplit) {
    std::vector<std::uint8_t> data(1000);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 31);
    const std::uint64_t whole = crc64(0, data.data(), data.size());
    for (std::size_t split = 0; split <= data.size(); ++split) {
        const std::uint64_t first = crc64(0, data.data(), split);
        ASSERT_EQ(crc64(first, data.data() + split, data.size() - split), whole) << split;
    }
}
