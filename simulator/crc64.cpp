#include "simulator/crc64.h"

#include <array>

namespace simulator {
namespace {

constexpr std::array<std::uint64_t, 256> makeTable() {
    std::array<std::uint64_t, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        std::uint64_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0x95AC9329AC4BC9B5U : crc >> 1;
        table[i] = crc;
    }
    return table;
}

constexpr std::array<std::uint64_t, 256> table = makeTable();

}  // namespace

std::uint64_t crc64(std::uint64_t crc, Bytes bytes) {
    for (const std::uint8_t byte : bytes)
        crc = table[(crc ^ byte) & 0xFF] ^ crc >> 8;
    return crc;
}

}  // namespace simulator
