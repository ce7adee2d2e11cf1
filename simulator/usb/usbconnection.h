// The cable between one plugged device and the handles that the host opens on it: carries transfers
// as they are started, waited for, interrupted and cut off. Used by VirtualUsbBus.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/libusbk.h"
#include "simulator/usb/virtualusbdevice.h"

namespace simulator {

// One opening of the device by the host. Its members belong to the connection.
struct UsbOpening {
    bool interrupted = false;
    bool hasClaimed = false;  // has asked for the interface and not just used a pipe
};

struct UsbRequest {
    std::uint8_t endpoint;
    std::uint8_t* in;         // of an IN transfer, else null
    const std::uint8_t* out;  // of an OUT transfer, else null
    std::uint32_t length;
};

// One transfer, of a slot or of a call without one. All but `moved` and `code` of an ended transfer
// belongs to the connection.
struct UsbTransferSlot {
    enum class State { kReady, kUnderWay, kEnded };

    State state = State::kReady;
    UsbOpening* opening = nullptr;
    UsbRequest request{};
    std::uint32_t moved = 0;
    std::uint32_t code = libusbk::kNoError;  // how it has ended
    bool refused = false;                    // nothing more will move
    Clock::time_point again;                 // nothing moves before
};

// All operations may be called from any thread.
class UsbConnection {
  public:
    // `onLeft` is called, with no lock held, when the device has left in a transfer of its own
    // accord.
    UsbConnection(std::shared_ptr<VirtualUsbDevice> device, const libusbk::DeviceEntry& entry,
                  ErrorList& errors, std::function<void()> onLeft);

    const libusbk::DeviceEntry& entry() const { return entry_; }
    VirtualUsbDevice& device() { return *device_; }

    // Starts a transfer in the slot and returns what became of it: it has ended, or is under way.
    // Ready if the slot was not, and nothing was started. If `deferred`, nothing moves inside the
    // call.
    UsbTransferSlot::State start(UsbTransferSlot& slot, UsbOpening& opening,
                                 const UsbRequest& request, bool deferred);
    // Waits for its end; when the time is up it is cancelled. False if nothing was started.
    bool wait(UsbTransferSlot& slot, std::chrono::milliseconds timeout);
    // Makes the slot ready again, unless its transfer is under way.
    bool reuse(UsbTransferSlot& slot);
    // Drops the slot's transfer; returns whether it was under way.
    bool abandon(UsbTransferSlot& slot);
    // Drops all transfers of the opening and its claim; returns whether there were transfers.
    bool abandonAll(const UsbOpening& opening);

    void interrupt(UsbOpening& opening);
    // Whether the opening's pipes can be used: kNoError or what is in the way. The first use takes
    // the interface, unless another opening has it.
    std::uint32_t makeReady(UsbOpening& opening);
    // Fails if the opening has claimed the interface before (`twice`), or another has it.
    bool claim(UsbOpening& opening, bool& twice);
    // Fails if the opening does not have the interface.
    bool release(UsbOpening& opening);
    // The cable is drawn.
    void cut();
    bool isCut() const;

  private:
    std::uint32_t makeReadyLocked(UsbOpening& opening);
    // Moves what can be moved of all transfers under way, in the order of their start.
    void pump();
    bool mayMove(std::size_t index) const;
    void progress(UsbTransferSlot& slot);
    void end(UsbTransferSlot& slot, std::uint32_t code);
    void endAll(std::uint32_t code, const UsbOpening* opening);
    // Lets go of the lock, and tells if the device has left meanwhile.
    void unlock(std::unique_lock<std::mutex>& lock);

    const std::shared_ptr<VirtualUsbDevice> device_;
    const libusbk::DeviceEntry entry_;
    ErrorList* errors_;
    const std::function<void()> onLeft_;

    mutable std::mutex lock_;  // guards all below, the slots and the openings
    std::condition_variable changed_;
    std::vector<UsbTransferSlot*> underWay_;
    UsbOpening* owner_ = nullptr;  // who has the interface
    bool cut_ = false;
    bool leftToTell_ = false;
    bool unclaimedTold_ = false;
};

}  // namespace simulator
