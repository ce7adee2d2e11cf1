// Pools of slots: a slot is a transfer that its owner keeps and uses again and again.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "libusbk/transfer.h"

namespace libusbk {

struct OverlappedSlot {
    OverlappedSlot(OverlappedPool& owner, const std::shared_ptr<OpenDevice>& device)
        : pool(owner), transfer(device) {}

    OverlappedPool& pool;
    Transfer transfer;
    bool taken = false;  // guarded by the pool's mutex
};

struct OverlappedPool {
    OverlappedPool(const std::shared_ptr<OpenDevice>& device, std::int32_t count);

    // Null if all are taken.
    OverlappedSlot* acquire();
    void release(OverlappedSlot& slot);

  private:
    std::mutex mutex_;
    std::deque<OverlappedSlot> slots_;
};

}  // namespace libusbk
