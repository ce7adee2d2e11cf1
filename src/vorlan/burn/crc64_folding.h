// The quick part of CRC-64 on processors that multiply without carry.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::size_t kFoldedBlockSize = 16;

// Folds the data up to the last multiple of 16 bytes, preceded by data of the CRC `crc`, into one
// block: the CRC-64 of that block alone is the CRC of all that was folded. Returns how many bytes
// were folded: 0 if there are too few of them or the processor has no carry-less multiply.
std::size_t foldCrc64(std::uint64_t crc, const std::uint8_t* data, std::size_t size,
                      std::uint8_t block[kFoldedBlockSize]);
