#include "libusbk/transfer.h"

#include <array>
#include <limits>
#include <new>
#include <utility>

#include "libusbk/lasterror.h"

namespace libusbk {
namespace {

constexpr std::chrono::milliseconds kDrainLimit{20};  // an answer that is there comes much sooner
constexpr std::chrono::milliseconds kRequestLimit{500};  // devices have to answer within 50 ms
constexpr int kDrainReads = 64;  // a device that has more to give than this babbles

}  // namespace

Transfer::Transfer(std::shared_ptr<OpenDevice> device)
    : device_(std::move(device)), transfer_(libusb_alloc_transfer(0)) {
    if (transfer_ == nullptr)
        throw std::bad_alloc();
}

Transfer::~Transfer() {
    cancelAndWait();
    libusb_free_transfer(transfer_);
}

bool Transfer::start(std::uint8_t endpoint, std::uint8_t* buffer, std::uint32_t length) {
    if (length > std::uint32_t{std::numeric_limits<int>::max()})
        return fail(kInvalidParameter);
    if (isRunning())
        return fail(kBusy);
    if (!device_->makeReady())
        return false;
    libusb_fill_bulk_transfer(transfer_, device_->handle_, endpoint, buffer,
                              static_cast<int>(length), &Transfer::onEnded, this, 0);
    return submit();
}

bool Transfer::startRequest(std::uint8_t* setup) {
    if (isRunning())
        return fail(kBusy);
    if (!device_->makeReady())
        return false;
    libusb_fill_control_transfer(transfer_, device_->handle_, setup, &Transfer::onEnded, this, 0);
    return submit();
}

bool Transfer::submit() {
    // Before it is submitted, since it may have ended by the time the call returns.
    setState(State::kRunning);
    const int result = libusb_submit_transfer(transfer_);
    if (result == 0)
        return true;
    setState(State::kIdle);
    return fail(codeOfResult(result));
}

bool Transfer::wait(std::chrono::milliseconds limit, std::uint32_t& moved) {
    moved = 0;
    std::unique_lock lock(device_->mutex_);
    if (state_ == State::kIdle)
        return fail(kInvalidParameter);
    device_->changed_.wait_for(lock, limit,
                               [&] { return state_ == State::kEnded || device_->interrupted_; });
    const ErrorCode reason = device_->interrupted_ ? kOperationAborted : kCancelled;
    lock.unlock();
    cancelAndWait();

    setState(State::kIdle);
    moved = static_cast<std::uint32_t>(transfer_->actual_length);
    if (transfer_->status == LIBUSB_TRANSFER_COMPLETED)
        return true;
    if (transfer_->status != LIBUSB_TRANSFER_CANCELLED)
        return fail(codeOfStatus(transfer_->status));
    // The cancellation came too late if all has moved.
    if (transfer_->length > 0 && transfer_->actual_length == transfer_->length)
        return true;
    return fail(reason);
}

void Transfer::cancelAndWait() {
    if (!isRunning())
        return;
    // Fails if the transfer is about to end anyway, by itself or because the device has left.
    libusb_cancel_transfer(transfer_);
    std::unique_lock lock(device_->mutex_);
    device_->changed_.wait(lock, [&] { return state_ != State::kRunning; });
}

bool Transfer::isRunning() {
    const std::lock_guard guard(device_->mutex_);
    return state_ == State::kRunning;
}

void LIBUSB_CALL Transfer::onEnded(libusb_transfer* transfer) noexcept {
    static_cast<Transfer*>(transfer->user_data)->setState(State::kEnded);
}

void Transfer::setState(State state) {
    const std::lock_guard guard(device_->mutex_);
    state_ = state;
    if (state == State::kRunning)
        device_->running_.push_back(this);
    else
        std::erase(device_->running_, this);
    // Under the lock: whoever waits may free this object as soon as it is released.
    device_->changed_.notify_all();
}

bool transferNow(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint,
                 std::uint8_t* buffer, std::uint32_t length, std::chrono::milliseconds limit,
                 std::uint32_t& moved) {
    Transfer transfer(device);
    return transfer.start(endpoint, buffer, length) && transfer.wait(limit, moved);
}

bool resetPipe(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint) {
    // Only the kernel can clear the halt on the host's side, and it asks the device itself then:
    // for up to 5 s, and nothing ends that. So a device that is mute has to be found out before.
    std::array<std::uint8_t, LIBUSB_CONTROL_SETUP_SIZE> clearHalt{
        LIBUSB_RECIPIENT_ENDPOINT, LIBUSB_REQUEST_CLEAR_FEATURE, 0, 0, endpoint, 0, 0, 0};
    Transfer request(device);
    std::uint32_t moved = 0;
    if (!request.startRequest(clearHalt.data()))
        return false;
    if (!request.wait(kRequestLimit, moved))
        return fail(lastError() == kCancelled ? kSemaphoreTimeout : lastError());
    return device->clearHalt(endpoint);
}

bool drain(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint) {
    std::array<std::uint8_t, 4096> dropped;
    Transfer transfer(device);
    for (int i = 0; i < kDrainReads; ++i) {
        std::uint32_t moved = 0;
        if (!transfer.start(endpoint, dropped.data(), dropped.size()))
            return false;
        if (!transfer.wait(kDrainLimit, moved) && (lastError() != kCancelled || moved == 0))
            return lastError() == kCancelled;
    }
    return fail(kSemaphoreTimeout);
}

}  // namespace libusbk
