// One image to burn, handed from the firmware package to the burn engines by value.
#pragma once

#include <cstdint>
#include <string>

struct BurnItem {
    std::wstring file;       // path of the image in the unpack directory
    std::uint32_t addr = 0;  // flash address
    std::uint32_t used = 0;  // in a BurnCfg: 1 once a fixed image has taken the entry up
};
