// What goes over the wire between the host and a Vorlan device on USB, as the virtual device and
// tests of the bare wire see it. Written apart from the product's own encoding, to check it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simulator/bytes.h"

namespace simulator {

// Endpoints.
constexpr std::uint8_t kCommandOut = 0x06;
constexpr std::uint8_t kCommandIn = 0x85;  // answers of the ROM loader too
constexpr std::uint8_t kDataOut = 0x04;    // messages to the ROM loader too
constexpr std::uint8_t kDataIn = 0x83;

// Commands of the burner image: 16-byte records, answered by 16-byte records.
constexpr std::size_t kRecordSize = 16;
constexpr std::size_t kChunkSize = 4096;
constexpr std::uint32_t kFlagCrc64 = 8;
enum CommandCode : std::uint8_t {
    kFlashWrite = 1,
    kVerifyOnly = 2,
    kEraseOnly = 3,
    kSync = 4,
    kGetResult = 5,
    kSetCrc64 = 6,
};
enum ResponseCode : std::uint8_t {
    kSuccess = 0,
    kError = 1,
    kReady = 2,
    kOngoing = 3,
    kRetry = 4,
};

// Messages of the ROM loader, answered by 10 bytes of which byte 8 is the status.
constexpr std::size_t kBlockSize = 2048;
constexpr std::size_t kRomReplySize = 10;
constexpr std::uint8_t kFatalStatus = 0xF0;  // and above
enum RomCommand : std::uint8_t {
    kMemBegin = 5,
    kMemEnd = 6,
    kMemData = 7,
};

}  // namespace simulator
