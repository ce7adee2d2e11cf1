// What a part of a virtual USB device has to know of a message besides its bytes.
#pragma once

#include <cstdint>
#include <optional>

#include "simulator/usb/answerqueue.h"

namespace simulator {

struct UsbTurn {
    Clock::time_point now;
    bool carryOut = true;
    // The host has got the good answer to its last message.
    bool lastAnswered = true;
    // Whether it is still sure which answer the host has taken for which message. If not, a message
    // out of order is no breach.
    bool inStep = true;
    // Of a transfer of image data: the byte that gets into the flash with one bit wrong.
    std::optional<std::uint32_t> corruptOffset;
};

}  // namespace simulator
