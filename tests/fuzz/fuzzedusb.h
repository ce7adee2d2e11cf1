// libusbK with one device behind it that does with every transfer what a script says. It holds the
// engine to the rules of the table, and keeps every transfer for whoever judges the run.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "fuzzing.h"
#include "platform/libusbk.h"

// A read, also if it took several goes, or a write, as the engine has seen it.
struct Transfer {
    std::uint8_t endpoint = 0;
    std::uint32_t wanted = 0;  // bytes
    Bytes bytes;               // what was to be written, or what has been read
    std::uint32_t moved = 0;   // bytes
    std::uint32_t code = 0;    // system code of a failure, else 0
    bool cutShort = false;     // a read: time ran out when only a part had come
    std::chrono::milliseconds begin{0};
    std::chrono::milliseconds end{0};

    bool isWhole() const { return moved == wanted; }
};

// One at a time.
class FuzzedUsb {
  public:
    // Gives the device's next answer on that pipe.
    using Answer = Bytes (*)(void* device, std::uint8_t endpoint, std::uint32_t wanted);

    // `restOfTime` is the script once it has ended.
    FuzzedUsb(Script& script, std::uint8_t restOfTime, Answer answer, void* device);
    ~FuzzedUsb();
    FuzzedUsb(const FuzzedUsb&) = delete;
    FuzzedUsb& operator=(const FuzzedUsb&) = delete;

    // Puts itself in libusbK's place, for good.
    static void install();

    // A handle and a pool as they belong to a session.
    libusbk::UsbHandle* open();
    libusbk::OverlappedPool* makePool(libusbk::UsbHandle* handle, std::int32_t count);

    // Nothing is open or under way any more.
    bool isAtRest() const;

    std::vector<Transfer> transfers;
    std::int32_t driverId = libusbk::kDriverIdLibusb;
    int openSteps = 1000;  // how many calls that open something go well

  private:
    friend struct FuzzedUsbTable;

    struct Slot {
        bool acquired = false;
        bool ready = false;
        bool pending = false;
        std::uint8_t* buffer = nullptr;  // of a read
        Bytes read;
        std::uint32_t moved = 0;
        std::uint32_t code = 0;  // in which the wait ends
    };

    bool mayOpen();
    bool transfer(libusbk::UsbHandle* handle, std::uint8_t endpoint, std::uint8_t* in,
                  const std::uint8_t* out, std::uint32_t length, std::uint32_t* transferred,
                  libusbk::OverlappedSlot* slot);
    // Whether this is the rest of the read before, which was cut short.
    bool goesOn(std::uint8_t endpoint, std::uint32_t length) const;
    bool wait(Slot& slot, std::uint32_t timeoutMs, std::uint32_t* transferred);
    void beginTransfer(std::uint8_t endpoint, const std::uint8_t* out, std::uint32_t length);
    void endTransfer(const Bytes& read, std::uint32_t moved, std::uint32_t code);
    Bytes nextRead(std::uint8_t endpoint, std::uint32_t length);
    bool fail(std::uint32_t code);
    Slot& slotOf(libusbk::OverlappedSlot* slot);

    Script& script_;
    std::uint8_t restOfTime_;
    Answer answer_;
    void* device_;
    std::array<Slot, 4> slots_{};
    int handles_ = 0;
    int pools_ = 0;
    int lists_ = 0;
    bool claimed_ = false;
    bool continues_ = false;  // the transfer under way goes on with the one before
    Bytes rest_;              // of an answer that was cut short
    std::uint32_t lastError_ = 0;
    libusbk::DeviceEntry entry_{};
};
