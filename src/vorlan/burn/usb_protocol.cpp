#include "vorlan/burn/usb_protocol.h"

#include <algorithm>

#include "utils/littleendian.h"

namespace {

constexpr int kCodeShift = 25;  // a code stands in the upper 7 bits of a record's first word
constexpr std::uint32_t kFlagsMask = (1U << kCodeShift) - 1;

struct CommandTexts {
    const char* name;
    const char* description;
};

constexpr CommandTexts kCommandTexts[CMD_CODE_COUNT + 1] = {
    {"UNUSED_CODE(0)", "0: unused code"},
    {"FLASH_WRITE(1)", "1: flash burn from host"},
    {"VERIFY_ONLY(2)", "2: verify flash content with image data"},
    {"ERASE_ONLY(3)", "3: erase flash of specified range"},
    {"SYNC(4)", "4: sync with device"},
    {"GET_RESULT(5)", "5: get command execution result"},
    {"SET_CRC64(6)", "6: set crc64 value of image data"},
    {"SHOW_DONE(7)", "7: show that burning is done"},
    {"INVALID_CODE", "invalid code"},
};

const CommandTexts& textsOf(std::uint8_t cmdcode) {
    return kCommandTexts[std::min<std::uint8_t>(cmdcode, CMD_CODE_COUNT)];
}

}  // namespace

const char* commandName(std::uint8_t cmdcode) {
    return textsOf(cmdcode).name;
}

const char* commandDescription(std::uint8_t cmdcode) {
    return textsOf(cmdcode).description;
}

Record encode(const USB_CMD_COMMON& command) {
    const std::uint32_t code = command.cmdcode;
    Record record{};
    littleendian::put(&record[0], (code << kCodeShift) | (command.flags & kFlagsMask));
    littleendian::put(&record[4], command.address);
    littleendian::put(&record[8], command.size);
    return record;
}

Record encodeSetCrc64(std::uint32_t flags, std::uint64_t crc) {
    Record record = encode({.cmdcode = CMD_CODE_SET_CRC64, .flags = flags});
    littleendian::put(&record[4], crc);
    return record;
}

std::uint8_t commandCodeOf(const std::uint8_t* record) {
    return static_cast<std::uint8_t>(littleendian::get<std::uint32_t>(record) >> kCodeShift);
}

USB_RESP_COMMON decodeResponse(const Record& record) {
    return {
        .respcode = commandCodeOf(record.data()), .cmdorg = record[4], .errdesc_len = record[5]};
}
