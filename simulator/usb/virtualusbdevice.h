// A Vorlan device on USB: the ROM loader, then the burner image, with a flash behind it. Bytes in,
// bytes out; VirtualUsbBus carries them. Strict: what the host does wrong is recorded.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/usb/answerqueue.h"
#include "simulator/usb/usbburner.h"
#include "simulator/usb/usbfault.h"
#include "simulator/usb/usbromloader.h"
#include "simulator/usb/usbwire.h"

namespace simulator {

// HandOver: the burner image starts and answers nothing yet.
enum class UsbStage { kRomLoader, kHandOver, kBurner };

struct UsbDeviceOptions {
    bool startsInBurner = false;  // for tests that need no download
    bool recordsTransfers = false;
    std::chrono::microseconds romStartUp{};  // after power-on, while nothing is taken
    std::chrono::microseconds handOver{};    // after MEM_END, while nothing is taken
    std::chrono::microseconds eraseTime{};   // before FLASH_WRITE is answered
    std::chrono::microseconds chunkTime{};   // before a chunk is answered
    std::chrono::microseconds resultTime{};  // after the last chunk or the command, while ONGOING
};

struct UsbTransfer {
    std::uint8_t endpoint;
    std::vector<std::uint8_t> bytes;
};

// What became of a transfer so far.
struct TransferOutcome {
    enum class State {
        kEnded,
        kWaiting,  // nothing more moves before `again`
        kRefused,  // nothing more moves at all
        kStalled,  // the endpoint is halted
    };
    State state = State::kEnded;
    std::uint32_t moved = 0;  // bytes in all
    Clock::time_point again = Clock::time_point::max();
    bool left = false;        // the device was unplugged in it
    bool needsClaim = false;  // the burner image took it: the interface should be claimed
};

// All operations may be called from any thread.
class VirtualUsbDevice {
  public:
    explicit VirtualUsbDevice(UsbDeviceOptions options = {});

    // For the bus. Power-on loses everything but the flash, the scripted faults and the records.
    void powerOn();
    void opened();
    TransferOutcome hostWrites(std::uint8_t endpoint, Bytes bytes);
    // `moved` bytes of the buffer have been filled before.
    TransferOutcome hostReads(std::uint8_t endpoint, std::span<std::uint8_t> buffer,
                              std::uint32_t moved);
    // False if the endpoint is halted.
    bool hostFlushes(std::uint8_t endpoint);
    // Ends a halt of the endpoint: once stalled, it stays so until then.
    void hostResets(std::uint8_t endpoint);

    void addFault(UsbFaultRule rule);
    // The device leaves as soon as so many bytes have moved since power-on, both ways together.
    void unplugAtByte(std::uint64_t count);

    UsbStage stage();
    const Flash& flash() const { return flash_; }
    std::vector<std::string> errors() const { return errors_.texts(); }
    // The image that the ROM loader has got, as far as it has come.
    std::vector<std::uint8_t> downloadedBurner() const;
    // How many messages of this kind came, repeats and refused ones included.
    std::uint32_t count(UsbFaultPoint point) const;
    // Bytes that have moved since power-on, both ways together.
    std::uint64_t traffic() const;
    // The endpoints that the host has reset since power-on, in the order of the resets.
    std::vector<std::uint8_t> resets() const;
    // What waits on an IN endpoint, readable or not yet.
    std::size_t unreadBytes(std::uint8_t endpoint) const;
    // With recordsTransfers: every message the host sent and every answer as far as it was read.
    std::vector<UsbTransfer> transfers() const;

  private:
    // One direction of exchange: messages that come in, and the answers to them.
    struct Exchange {
        AnswerQueue answers;
        std::uint64_t message = 0;   // number of the last message
        std::uint64_t answered = 0;  // number of the last that was well answered
        bool lastAnswered() const { return answered == message; }
    };

    void advance(Clock::time_point now);
    std::uint64_t bytesUntilUnplugged() const;
    std::optional<UsbFaultPoint> pointOf(std::uint8_t endpoint, Bytes bytes) const;
    // The fault that befalls this message; it is counted.
    const UsbFault& strike(std::optional<UsbFaultPoint> point);
    TransferOutcome transferFault(std::uint8_t endpoint, const UsbFault& fault, std::uint32_t size);
    void take(std::uint8_t endpoint, Bytes bytes, const UsbFault& fault, Clock::time_point now);
    UsbTurn turnOf(const Exchange& exchange, const UsbFault& fault, Clock::time_point now) const;
    void takeRomMessage(Bytes message, const UsbFault& fault, Clock::time_point now);
    void takeCommand(Bytes record, const UsbFault& fault, Clock::time_point now);
    void takeChunk(Bytes chunk, const UsbFault& fault, Clock::time_point now);
    void respond(Exchange& exchange, const UsbBurner::Response& response, const UsbFault& fault,
                 Clock::time_point now);
    // Queues an answer as the fault shapes it. `asked`: how many bytes the host has to ask for.
    void answer(Exchange& exchange, Bytes bytes, Asked asked, bool good, const UsbFault& fault,
                Clock::time_point readableAt);
    void delivered(Exchange& exchange, const Packet& packet, Clock::time_point now);
    void checkRead(const Packet& packet, std::size_t size);
    void leave();

    const UsbDeviceOptions options_;
    Flash flash_;
    ErrorList errors_;

    mutable std::mutex lock_;  // guards all below
    UsbRomLoader rom_;
    UsbBurner burner_;
    UsbStage stage_ = UsbStage::kRomLoader;
    bool left_ = true;    // no power
    bool fresh_ = false;  // opened anew, and nothing but attempts to download came since
    // Whether it is still sure which answer the host takes for which message: an answer that is
    // late can end that.
    bool inStep_ = true;
    Clock::time_point quietUntil_;
    Exchange commands_;  // on kCommandIn: records, ROM messages
    Exchange data_;      // on kDataIn: chunks
    std::set<std::uint8_t> halted_;
    std::vector<std::uint8_t> resets_;
    FaultScript<UsbFaultPoint, UsbFault, kUsbFaultPoints> faults_;
    std::uint64_t traffic_ = 0;
    std::uint64_t trafficLimit_ = UINT64_MAX;
    std::vector<UsbTransfer> transfers_;
};

}  // namespace simulator
