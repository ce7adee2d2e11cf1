// The wire protocol between the host and the burner image on a device: endpoints, codes and the
// 16-byte records. The host is always the active side; all values are little-endian.
#pragma once

#include <array>
#include <cstdint>

constexpr std::uint16_t kVorlanVendorId = 0x1234;
constexpr std::uint16_t kVorlanProductId = 0x5678;
constexpr std::uint8_t kVorlanInterface = 0;

constexpr std::uint8_t EP_ADDR_CMD_RESP_OUT = 0x06;   // command records
constexpr std::uint8_t EP_ADDR_CMD_RESP_IN = 0x85;    // responses to commands, error descriptions
constexpr std::uint8_t EP_ADDR_DATA_RESP_OUT = 0x04;  // image data
constexpr std::uint8_t EP_ADDR_DATA_RESP_IN = 0x83;   // responses to chunks of image data

constexpr std::uint32_t kChunkSize = 4096;        // bytes of every chunk of image data but the last
constexpr std::uint32_t kErrorTextSize = 128;     // bytes of an error text, terminator included
constexpr std::uint32_t kCommandTimeoutMs = 100;  // to send a command record
constexpr std::uint32_t kTransferTimeoutMs = 200;  // for every other transfer

enum CommandCode : std::uint8_t {
    CMD_CODE_UNUSED = 0,
    CMD_CODE_FLASH_WRITE = 1,
    CMD_CODE_VERIFY_ONLY = 2,
    CMD_CODE_ERASE_ONLY = 3,
    CMD_CODE_SYNC = 4,
    CMD_CODE_GET_RESULT = 5,
    CMD_CODE_SET_CRC64 = 6,
    CMD_CODE_SHOW_DONE = 7,  // reserved, never sent
    CMD_CODE_COUNT = 8,
};

// Name and description of a command for messages, as in "SYNC(4)" and "4: sync with device".
const char* commandName(std::uint8_t cmdcode);
const char* commandDescription(std::uint8_t cmdcode);

// The image's CRC-64 takes part in the command.
constexpr std::uint32_t BURN_FLAG_CRC64 = 1U << 3;

enum ResponseCode : std::uint8_t {
    RESP_CODE_SUCCESS = 0,  // the command has finished well
    RESP_CODE_ERROR = 1,    // it has failed; a description of errdesc_len bytes follows
    RESP_CODE_READY = 2,    // the device takes the data
    RESP_CODE_ONGOING = 3,  // the command was accepted and runs on
    RESP_CODE_RETRY = 4,    // the device cannot take the command now
};

constexpr std::uint32_t kRecordSize = 16;
using Record = std::array<std::uint8_t, kRecordSize>;

// A command to the device.
struct USB_CMD_COMMON {
    std::uint8_t cmdcode = CMD_CODE_UNUSED;  // 7 bits on the wire
    std::uint32_t flags = 0;                 // 25 bits on the wire
    std::uint32_t address = 0;               // start in flash, where the command has one
    std::uint32_t size = 0;                  // bytes of the area, where the command has one
};

Record encode(const USB_CMD_COMMON& command);
// SET_CRC64, which carries the CRC in place of address and size.
Record encodeSetCrc64(std::uint32_t flags, std::uint64_t crc);
// The command code of an encoded record.
std::uint8_t commandCodeOf(const std::uint8_t* record);

// The device's answer to a command or to a chunk of data.
struct USB_RESP_COMMON {
    std::uint8_t respcode = RESP_CODE_SUCCESS;
    std::uint8_t cmdorg = CMD_CODE_UNUSED;  // the command answered; 0 names none
    std::uint8_t errdesc_len = 0;           // bytes of the description behind RESP_CODE_ERROR
};

USB_RESP_COMMON decodeResponse(const Record& record);
