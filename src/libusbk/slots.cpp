#include "libusbk/slots.h"

namespace libusbk {

OverlappedPool::OverlappedPool(const std::shared_ptr<OpenDevice>& device, std::int32_t count) {
    for (std::int32_t i = 0; i < count; ++i)
        slots_.emplace_back(*this, device);
}

OverlappedSlot* OverlappedPool::acquire() {
    const std::lock_guard guard(mutex_);
    for (OverlappedSlot& slot : slots_) {
        if (!slot.taken) {
            slot.taken = true;
            return &slot;
        }
    }
    return nullptr;
}

void OverlappedPool::release(OverlappedSlot& slot) {
    slot.transfer.cancelAndWait();
    const std::lock_guard guard(mutex_);
    slot.taken = false;
}

}  // namespace libusbk
