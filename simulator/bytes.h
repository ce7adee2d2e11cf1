// Bytes that go over a wire, and the little-endian numbers in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace simulator {

using Bytes = std::span<const std::uint8_t>;

inline std::uint32_t readU16(Bytes bytes, std::size_t offset) {
    return bytes[offset] | std::uint32_t{bytes[offset + 1]} << 8;
}

inline std::uint32_t readU32(Bytes bytes, std::size_t offset) {
    return readU16(bytes, offset) | readU16(bytes, offset + 2) << 16;
}

inline std::uint64_t readU64(Bytes bytes, std::size_t offset) {
    return readU32(bytes, offset) | std::uint64_t{readU32(bytes, offset + 4)} << 32;
}

}  // namespace simulator
