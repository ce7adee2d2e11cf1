// Integers as bytes, least significant byte first: the order of every wire and file of the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace littleendian {

// Writes `value` to the sizeof(Unsigned) bytes at `bytes`.
template <typename Unsigned>
void put(std::uint8_t* bytes, Unsigned value) {
    static_assert(std::is_unsigned_v<Unsigned>);
    for (std::size_t i = 0; i < sizeof(Unsigned); ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// Reads the sizeof(Unsigned) bytes at `bytes`.
template <typename Unsigned>
Unsigned get(const std::uint8_t* bytes) {
    static_assert(std::is_unsigned_v<Unsigned>);
    Unsigned value = 0;
    for (std::size_t i = 0; i < sizeof(Unsigned); ++i)
        value = static_cast<Unsigned>(value | (static_cast<Unsigned>(bytes[i]) << (8 * i)));
    return value;
}

}  // namespace littleendian
