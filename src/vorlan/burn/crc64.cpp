#include "vorlan/burn/crc64.h"

#include <array>

#include "utils/littleendian.h"
#include "vorlan/burn/crc64_folding.h"
#include "vorlan/burn/crc64_polynomial.h"

namespace {

// Slicing: tables[n][b] is the CRC of byte b followed by n zero bytes, so that a step can look up
// many bytes independently of each other instead of one after the other.
constexpr std::size_t kSlices = 8;
using Tables = std::array<std::array<std::uint64_t, 256>, kSlices>;

constexpr Tables makeTables() {
    Tables tables{};
    for (std::size_t byte = 0; byte < 256; ++byte) {
        std::uint64_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc64TimesX(crc);
        tables[0][byte] = crc;
    }
    for (std::size_t slice = 1; slice < kSlices; ++slice) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint64_t before = tables[slice - 1][byte];
            tables[slice][byte] = tables[0][before & 0xFF] ^ (before >> 8);
        }
    }
    return tables;
}

constexpr Tables kTables = makeTables();

std::uint64_t slicedCrc64(std::uint64_t crc, const std::uint8_t* data, std::size_t size) {
    for (; size >= kSlices; data += kSlices, size -= kSlices) {
        const std::uint64_t word = crc ^ littleendian::get<std::uint64_t>(data);
        crc = 0;
        for (std::size_t i = 0; i < kSlices; ++i)
            crc ^= kTables[kSlices - 1 - i][(word >> (8 * i)) & 0xFF];
    }
    for (; size > 0; --size)
        crc = kTables[0][(crc ^ *data++) & 0xFF] ^ (crc >> 8);
    return crc;
}

}  // namespace

std::uint64_t crc64(std::uint64_t crc, const std::uint8_t* data, std::size_t size) {
    std::uint8_t block[kFoldedBlockSize];
    const std::size_t folded = foldCrc64(crc, data, size, block);
    if (folded > 0)
        crc = slicedCrc64(0, block, sizeof block);
    return slicedCrc64(crc, data + folded, size - folded);
}
