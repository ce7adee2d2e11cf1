// The transfers of one burn of an image over USB, and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vorlan/burn/usb_protocol.h"

// What a burn of one image waits by rule: after the first SYNC, and before the first chunk.
constexpr double kFixedWaits = 0.001 + 0.010;  // s

// `transfers` has write(endpoint, bytes, size), read(endpoint), which takes a record, and answer(),
// the last one that was read. Whether the device tells success; whether the transfers went well is
// theirs to know.
template <typename Transfers>
bool bareBurn(Transfers& transfers, const std::vector<std::uint8_t>& image, std::uint32_t address,
              std::uint64_t crc) {
    const auto command = [&](const Record& record) {
        transfers.write(EP_ADDR_CMD_RESP_OUT, record.data(), kRecordSize);
        transfers.read(EP_ADDR_CMD_RESP_IN);
    };
    command(encode({.cmdcode = CMD_CODE_SYNC}));
    command(encodeSetCrc64(BURN_FLAG_CRC64, crc));
    command(encode({.cmdcode = CMD_CODE_FLASH_WRITE,
                    .flags = BURN_FLAG_CRC64,
                    .address = address,
                    .size = static_cast<std::uint32_t>(image.size())}));
    for (std::size_t sent = 0; sent < image.size(); sent += kChunkSize) {
        transfers.write(EP_ADDR_DATA_RESP_OUT, image.data() + sent, kChunkSize);
        transfers.read(EP_ADDR_DATA_RESP_IN);
    }
    command(encode({.cmdcode = CMD_CODE_GET_RESULT}));
    return decodeResponse(transfers.answer()).respcode == RESP_CODE_SUCCESS;
}
