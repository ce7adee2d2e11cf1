// One transfer that is started, runs on while its owner does something else or waits, and ends
// by itself, by its owner's time limit or by an interruption of the device.
#pragma once

#include <libusb.h>

#include <chrono>
#include <cstdint>
#include <memory>

#include "libusbk/opendevice.h"

namespace libusbk {

// Used by one thread at a time, over and over; no memory is taken per use.
class Transfer {
  public:
    // Throws std::bad_alloc.
    explicit Transfer(std::shared_ptr<OpenDevice> device);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // False with the last error if it cannot be started. The buffer is in use until wait() or
    // cancelAndWait() has returned.
    bool start(std::uint8_t endpoint, std::uint8_t* buffer, std::uint32_t length);
    // The same for a request to the device itself that carries no data: the 8 bytes of its setup
    // packet.
    bool startRequest(std::uint8_t* setup);

    // Waits for the end; when the limit passes or the device is interrupted before, cancels and
    // waits for that. `moved` is what has really moved, whatever the result. False with kCancelled
    // for the time-out, kOperationAborted for the interruption, or the cause of a failure.
    bool wait(std::chrono::milliseconds limit, std::uint32_t& moved);

    // Ends the transfer if it is running.
    void cancelAndWait();

    bool isRunning();

    const std::shared_ptr<OpenDevice>& device() const { return device_; }

  private:
    enum class State { kIdle, kRunning, kEnded };

    static void LIBUSB_CALL onEnded(libusb_transfer* transfer) noexcept;
    bool submit();
    void setState(State state);

    const std::shared_ptr<OpenDevice> device_;
    libusb_transfer* const transfer_;
    State state_ = State::kIdle;  // guarded by the device's mutex
};

// Runs one transfer from start to end on the calling thread.
bool transferNow(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint,
                 std::uint8_t* buffer, std::uint32_t length, std::chrono::milliseconds limit,
                 std::uint32_t& moved);

// Clears the endpoint's halt, in the device and on the host's side.
bool resetPipe(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint);

// Reads and drops what an IN endpoint still has to give.
bool drain(const std::shared_ptr<OpenDevice>& device, std::uint8_t endpoint);

}  // namespace libusbk
