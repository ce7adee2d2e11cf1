// The messages of the chip's ROM loader, which take a small image into RAM and start it: MEM_BEGIN,
// MEM_DATA for each block, MEM_END. They go out on EP_ADDR_DATA_RESP_OUT, the replies come in on
// EP_ADDR_CMD_RESP_IN. All values are little-endian.
#pragma once

#include <cstdint>
#include <string>

#include "platform/libusbk.h"

constexpr std::uint32_t kRomBlockSize = 2048;  // bytes of image data in a MEM_DATA message
constexpr std::uint32_t kMemBeginSize = 24;    // bytes of the message
constexpr std::uint32_t kMemDataHeader = 24;   // bytes before the image data
constexpr std::uint32_t kMemEndSize = 16;      // bytes of the message
constexpr std::uint32_t kRomBufferSize = kMemDataHeader + kRomBlockSize;

constexpr int USB_WR_RETRIES = 10;  // a message is tried at most this often

// XOR of all bytes, starting from 0xEF.
std::uint8_t romChecksum(const std::uint8_t* data, std::uint32_t size);

// Each builds its message at the start of `buf`, which has room for it, and sends it until the ROM
// reports success. A payload is already in its place, behind the header. The slot may be null.
// Returns 0, the ROM's fatal status (0xF0 and above), or another non-zero code when all tries have
// failed; `errorText` then says which. Every transfer and wait has its limit, and an interruption
// of the calling thread ends them all; the result is then kOperationAborted.
std::uint32_t send_mem_begin_command(std::uint8_t* buf, std::uint32_t buf_len,
                                     std::uint32_t total_len, libusbk::UsbHandle* usbHandle,
                                     libusbk::OverlappedSlot* slot, std::string& errorText);
std::uint32_t send_mem_data_command(std::uint8_t* buf, std::uint32_t buf_len,
                                    const std::uint8_t* payload, std::uint32_t payload_len,
                                    std::uint32_t sequence, libusbk::UsbHandle* usbHandle,
                                    libusbk::OverlappedSlot* slot, std::string& errorText);
std::uint32_t send_mem_end_command(std::uint8_t* buf, std::uint32_t buf_len,
                                   libusbk::UsbHandle* usbHandle, libusbk::OverlappedSlot* slot,
                                   std::string& errorText);

// Sends the message of `data_len` bytes in `buf` as it stands.
std::uint32_t send_mem_command(const std::uint8_t* buf, std::uint32_t data_len,
                               libusbk::UsbHandle* usbHandle, libusbk::OverlappedSlot* slot,
                               std::string& errorText);
