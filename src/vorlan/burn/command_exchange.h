// One exchange with the burner image: a command record goes out, a response record comes back.
#pragma once

#include <cstdint>
#include <string>

#include "vorlan/burn/usb_protocol.h"
#include "vorlan/burn/vorlan_device.h"

enum class Exchange {
    kNotSent,   // the record did not go out whole
    kNoAnswer,  // no answer of 16 bytes came in time
    kAnswered,
};

// Sends `size` bytes, at least a whole record, on the command pipe and reads the answer.
Exchange exchangeCommand(VORLAN_DEVICE* device, const std::uint8_t* record, std::uint32_t size,
                         USB_RESP_COMMON& response);
Exchange exchangeCommand(VORLAN_DEVICE* device, const Record& record, USB_RESP_COMMON& response);

// Reads the error description of `length` bytes that waits behind RESP_CODE_ERROR, cut to
// kErrorTextSize with its terminator. Empty if there is none.
std::string readErrorDescription(VORLAN_DEVICE* device, std::uint8_t length);

// What the answer to a command must look like for the command to have begun.
struct CommandRule {
    const char* operation;  // for messages
    const char* command;    // for messages
    std::uint8_t awaited;   // the response code that moves on
    bool (*accepts)(std::uint8_t cmdorg);
    const char* errorPrefix;  // before "OPERATION: DESCRIPTION" in the log
};

// Sends the record, at most 3 times while the device is busy or answers uselessly.
bool beginCommand(VORLAN_DEVICE* device, const Record& record, const CommandRule& rule);
