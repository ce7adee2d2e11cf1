// What a peer on the serial line has to know of a request besides its bytes.
#pragma once

#include <cstdint>
#include <optional>

namespace simulator {

struct SerialTurn {
    bool carryOut = true;
    // Whether it is still sure which answer the host has taken for which request. If not, a request
    // out of order is refused and no breach.
    bool inStep = true;
    // The host has opened the port anew or was refused before, so it may begin anew.
    bool mayRestart = false;
    // FLASH_DATA: the byte of the block that gets into the flash with one bit wrong.
    std::optional<std::uint32_t> corruptOffset;
};

}  // namespace simulator
