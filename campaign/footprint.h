// What this process takes of the machine.
#pragma once

#include <cstddef>

namespace campaign {

struct Footprint {
    std::size_t residentKiB;
    std::size_t heapKiB;  // allocated and not freed
    std::size_t threads;
    std::size_t descriptors;
};

Footprint footprint();

}  // namespace campaign
