// CRC-64 of image data as the device computes it: Jones polynomial, bit-reflected, from 0, no final
// inversion. A plain table of its own, so that it checks the product's.
#pragma once

#include <cstdint>

#include "simulator/bytes.h"

namespace simulator {

// Carries `crc` (0 at the start) on over the bytes.
std::uint64_t crc64(std::uint64_t crc, Bytes bytes);

}  // namespace simulator
