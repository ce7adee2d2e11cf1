// CRC-64 of image data, as the device checks it: the form catalogued as CRC-64/REDIS (Jones
// polynomial 0xAD93D23594C935A9, bit-reflected, initial value 0, no final inversion).
#pragma once

#include <cstddef>
#include <cstdint>

// Continues `crc`, the CRC of what came before (0 at the start), with `size` bytes.
std::uint64_t crc64(std::uint64_t crc, const std::uint8_t* data, std::size_t size);
