#include "vorlan/burn/command_exchange.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "utils/interruption.h"
#include "utils/logutil.h"

// For the reader of the log an exchange is a step of the agent.
#define LOG_TAG "BurnAgent"

using namespace std::chrono_literals;

Exchange exchangeCommand(VORLAN_DEVICE* device, const std::uint8_t* record, std::uint32_t size,
                         USB_RESP_COMMON& response) {
    response = {};
    if (vorlan_device_write(device, record, size, EP_ADDR_CMD_RESP_OUT, kCommandTimeoutMs,
                            nullptr) < size)
        return Exchange::kNotSent;
    Record answer{};
    if (vorlan_device_read(device, answer.data(), kRecordSize, EP_ADDR_CMD_RESP_IN,
                           kTransferTimeoutMs, nullptr) < kRecordSize)
        return Exchange::kNoAnswer;
    response = decodeResponse(answer);
    return Exchange::kAnswered;
}

Exchange exchangeCommand(VORLAN_DEVICE* device, const Record& record, USB_RESP_COMMON& response) {
    return exchangeCommand(device, record.data(), kRecordSize, response);
}

std::string readErrorDescription(VORLAN_DEVICE* device, std::uint8_t length) {
    if (length == 0)
        return {};
    // The whole description is taken off the wire, however long, so that none of it is left to be
    // mistaken for the next answer.
    std::array<char, 255> text{};
    const std::uint32_t count =
        vorlan_device_read(device, reinterpret_cast<std::uint8_t*>(text.data()), length,
                           EP_ADDR_CMD_RESP_IN, kTransferTimeoutMs, nullptr);
    std::string description(text.data(), std::min(count, kErrorTextSize - 1));
    description.resize(std::min(description.size(), description.find('\0')));
    return description;
}

bool beginCommand(VORLAN_DEVICE* device, const Record& record, const CommandRule& rule) {
    constexpr int kTries = 3;
    for (int i = 0; i < kTries; ++i) {
        USB_RESP_COMMON response;
        switch (exchangeCommand(device, record, response)) {
            case Exchange::kNotSent:
                return false;
            case Exchange::kNoAnswer:
                interruption::sleep(10ms);
                continue;
            case Exchange::kAnswered:
                break;
        }
        if (!rule.accepts(response.cmdorg))
            continue;
        if (response.respcode == rule.awaited)
            return true;
        if (response.respcode == RESP_CODE_ERROR) {
            const std::string description = readErrorDescription(device, response.errdesc_len);
            LOG_E("%s%s: %s\n", rule.errorPrefix, rule.operation, description.c_str());
            return false;
        }
        if (response.respcode == RESP_CODE_RETRY)
            interruption::sleep(10ms);
    }
    LOG_E("%s: retry sending %s for %d times!\n", rule.operation, rule.command, kTries);
    return false;
}
