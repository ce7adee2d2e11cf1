#include "simulator/usb/usbconnection.h"

#include <algorithm>
#include <utility>

namespace simulator {

UsbConnection::UsbConnection(std::shared_ptr<VirtualUsbDevice> device,
                             const libusbk::DeviceEntry& entry, ErrorList& errors,
                             std::function<void()> onLeft)
    : device_(std::move(device)), entry_(entry), errors_(&errors), onLeft_(std::move(onLeft)) {}

UsbTransferSlot::State UsbConnection::start(UsbTransferSlot& slot, UsbOpening& opening,
                                            const UsbRequest& request, bool deferred) {
    std::unique_lock lock(lock_);
    if (slot.state != UsbTransferSlot::State::kReady)
        return UsbTransferSlot::State::kReady;
    slot = {};
    slot.state = UsbTransferSlot::State::kUnderWay;
    slot.opening = &opening;
    slot.request = request;
    slot.again = Clock::time_point::max();
    underWay_.push_back(&slot);
    const std::uint32_t obstacle = makeReadyLocked(opening);
    if (obstacle != libusbk::kNoError)
        end(slot, obstacle);
    else if (!deferred)
        pump();
    const UsbTransferSlot::State state = slot.state;
    unlock(lock);
    return state;
}

bool UsbConnection::wait(UsbTransferSlot& slot, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    std::unique_lock lock(lock_);
    if (slot.state == UsbTransferSlot::State::kReady)
        return false;
    pump();
    while (slot.state == UsbTransferSlot::State::kUnderWay) {
        if (Clock::now() >= deadline) {
            end(slot, libusbk::kCancelled);
            break;
        }
        changed_.wait_until(lock, std::min(deadline, slot.again));
        pump();
    }
    unlock(lock);
    return true;
}

bool UsbConnection::reuse(UsbTransferSlot& slot) {
    const std::lock_guard guard(lock_);
    if (slot.state == UsbTransferSlot::State::kUnderWay)
        return false;
    slot.state = UsbTransferSlot::State::kReady;
    return true;
}

bool UsbConnection::abandon(UsbTransferSlot& slot) {
    const std::lock_guard guard(lock_);
    const bool underWay = slot.state == UsbTransferSlot::State::kUnderWay;
    if (underWay)
        end(slot, libusbk::kOperationAborted);
    return underWay;
}

bool UsbConnection::abandonAll(const UsbOpening& opening) {
    const std::lock_guard guard(lock_);
    const auto own = [&](const UsbTransferSlot* slot) { return slot->opening == &opening; };
    const bool any = std::ranges::any_of(underWay_, own);
    endAll(libusbk::kOperationAborted, &opening);
    if (owner_ == &opening)
        owner_ = nullptr;
    return any;
}

void UsbConnection::interrupt(UsbOpening& opening) {
    std::unique_lock lock(lock_);
    pump();  // what has completed before keeps its result
    opening.interrupted = true;
    endAll(libusbk::kOperationAborted, &opening);
    unlock(lock);
}

std::uint32_t UsbConnection::makeReady(UsbOpening& opening) {
    const std::lock_guard guard(lock_);
    return makeReadyLocked(opening);
}

std::uint32_t UsbConnection::makeReadyLocked(UsbOpening& opening) {
    if (opening.interrupted)
        return libusbk::kOperationAborted;
    if (cut_)
        return libusbk::kDeviceNotConnected;
    if (owner_ == nullptr)
        owner_ = &opening;
    return owner_ == &opening ? libusbk::kNoError : libusbk::kBusy;
}

bool UsbConnection::claim(UsbOpening& opening, bool& twice) {
    const std::lock_guard guard(lock_);
    twice = opening.hasClaimed;
    if (twice || (owner_ != nullptr && owner_ != &opening))
        return false;
    owner_ = &opening;
    opening.hasClaimed = true;
    return true;
}

bool UsbConnection::release(UsbOpening& opening) {
    const std::lock_guard guard(lock_);
    if (owner_ != &opening)
        return false;
    owner_ = nullptr;
    opening.hasClaimed = false;
    return true;
}

void UsbConnection::cut() {
    const std::lock_guard guard(lock_);
    if (cut_)
        return;
    pump();
    leftToTell_ = false;  // whoever draws the cable knows
    cut_ = true;
    endAll(libusbk::kDeviceNotConnected, nullptr);
}

bool UsbConnection::isCut() const {
    const std::lock_guard guard(lock_);
    return cut_;
}

void UsbConnection::pump() {
    // A write can make an answer readable for a read that was started before it, so begin anew
    // after each end.
    for (std::size_t i = 0; i < underWay_.size();) {
        UsbTransferSlot& slot = *underWay_[i];
        if (mayMove(i))
            progress(slot);
        i = slot.state == UsbTransferSlot::State::kEnded ? 0 : i + 1;
    }
}

bool UsbConnection::mayMove(std::size_t index) const {
    const UsbTransferSlot& slot = *underWay_[index];
    if (slot.refused)
        return false;
    const auto earlier = underWay_.begin() + static_cast<std::ptrdiff_t>(index);
    return std::none_of(underWay_.begin(), earlier, [&](const UsbTransferSlot* other) {
        return other->request.endpoint == slot.request.endpoint;
    });
}

void UsbConnection::progress(UsbTransferSlot& slot) {
    using State = TransferOutcome::State;
    const UsbRequest& request = slot.request;
    const TransferOutcome outcome =
        request.in != nullptr
            ? device_->hostReads(request.endpoint, {request.in, request.length}, slot.moved)
            : device_->hostWrites(request.endpoint, {request.out, request.length});
    slot.moved = outcome.moved;
    // Whoever waits for this transfer may not be who moves it, and has to look at the clock anew.
    if (std::exchange(slot.again, outcome.again) != outcome.again)
        changed_.notify_all();
    slot.refused = outcome.state == State::kRefused;
    if (outcome.needsClaim && !slot.opening->hasClaimed && !std::exchange(unclaimedTold_, true))
        errors_->add("a transfer with the burner image without a claim of the interface");
    if (outcome.state == State::kEnded)
        end(slot, libusbk::kNoError);
    else if (outcome.state == State::kStalled)
        end(slot, libusbk::kGeneralFailure);
    if (outcome.left && !cut_) {
        cut_ = true;
        leftToTell_ = true;
        endAll(libusbk::kDeviceNotConnected, nullptr);
    }
}

void UsbConnection::end(UsbTransferSlot& slot, std::uint32_t code) {
    slot.state = UsbTransferSlot::State::kEnded;
    slot.code = code;
    std::erase(underWay_, &slot);
    changed_.notify_all();
}

void UsbConnection::endAll(std::uint32_t code, const UsbOpening* opening) {
    const std::vector<UsbTransferSlot*> slots = underWay_;
    for (UsbTransferSlot* const slot : slots) {
        if (opening == nullptr || slot->opening == opening)
            end(*slot, code);
    }
}

void UsbConnection::unlock(std::unique_lock<std::mutex>& lock) {
    const bool tell = std::exchange(leftToTell_, false);
    lock.unlock();
    if (tell)
        onLeft_();
}

}  // namespace simulator
