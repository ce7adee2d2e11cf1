// The faults that a virtual USB device can be told to show, and at which messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "simulator/faultscript.h"

namespace simulator {

// The messages of the host, and the description that follows an answer with an error.
enum class UsbFaultPoint {
    MemBegin,
    MemData,
    MemEnd,
    FlashWrite,
    VerifyOnly,
    EraseOnly,
    Sync,
    GetResult,
    SetCrc64,
    Chunk,        // one transfer of image data to the burner image
    Description,  // knows the faults of answers only
};
constexpr std::size_t kUsbFaultPoints = 11;

class UsbFault {
  public:
    enum class Kind {
        None,
        // The message is not carried out.
        Swallow,
        RomStatus,
        Response,
        Error,
        Stall,
        ShortWrite,
        RefuseWrite,
        Unplug,
        // The message is carried out, its answer suffers.
        Silence,
        ShortAnswer,
        CutAnswer,
        LateAnswer,
        WrongCmdorg,
        StallAnswer,
        // The data suffers, the answer does not.
        Corrupt,
    };

    UsbFault() = default;

    // The message reaches nobody.
    static UsbFault swallow() { return UsbFault(Kind::Swallow); }
    // The ROM loader refuses with this status.
    static UsbFault romStatus(std::uint8_t status) { return {Kind::RomStatus, status}; }
    // The burner image answers with this code, naming `cmdorg` or else the command.
    static UsbFault response(std::uint8_t code, std::optional<std::uint8_t> cmdorg = {}) {
        UsbFault fault(Kind::Response, code);
        fault.cmdorg = cmdorg;
        return fault;
    }
    // The command fails with this description. `length` is what the answer says of it, else its
    // true length; at most 255 bytes are sent.
    static UsbFault error(std::string description, std::optional<std::uint8_t> length = {}) {
        UsbFault fault(Kind::Error);
        fault.text = std::move(description);
        fault.length = length;
        return fault;
    }
    // The host's transfer fails, and all later ones on its endpoint until the host resets that.
    static UsbFault stall() { return UsbFault(Kind::Stall); }
    // The host's transfer ends well, but with this many bytes only.
    static UsbFault shortWrite(std::uint32_t bytes) { return {Kind::ShortWrite, bytes}; }
    // The device takes this many bytes and then no more, until the host gives up.
    static UsbFault refuseWrite(std::uint32_t bytes = 0) { return {Kind::RefuseWrite, bytes}; }
    // The device leaves when this many bytes of the message have moved.
    static UsbFault unplug(std::uint32_t bytes = 0) { return {Kind::Unplug, bytes}; }

    // No answer comes.
    static UsbFault silence() { return UsbFault(Kind::Silence); }
    // The answer ends after this many bytes.
    static UsbFault shortAnswer(std::uint32_t bytes) { return {Kind::ShortAnswer, bytes}; }
    // The answer comes in two: so many bytes, and the rest after the pause.
    static UsbFault cutAnswer(std::uint32_t bytes, std::chrono::milliseconds pause) {
        UsbFault fault(Kind::CutAnswer, bytes);
        fault.time = pause;
        return fault;
    }
    // The answer comes so much later.
    static UsbFault lateAnswer(std::chrono::milliseconds time) {
        UsbFault fault(Kind::LateAnswer);
        fault.time = time;
        return fault;
    }
    static UsbFault wrongCmdorg(std::uint8_t cmdorg) {
        UsbFault fault(Kind::WrongCmdorg);
        fault.cmdorg = cmdorg;
        return fault;
    }
    // The transfer that comes for the answer fails, and all later ones on its endpoint until the
    // host resets that.
    static UsbFault stallAnswer() { return UsbFault(Kind::StallAnswer); }

    // The byte at this offset of the chunk gets into the flash with one bit wrong.
    static UsbFault corrupt(std::uint32_t offset) { return {Kind::Corrupt, offset}; }

    bool carriesOut() const { return kind == Kind::None || kind >= Kind::Silence; }

    Kind kind = Kind::None;
    std::uint32_t value = 0;  // status, code or number of bytes
    std::optional<std::uint8_t> cmdorg;
    std::optional<std::uint8_t> length;
    std::chrono::milliseconds time{};
    std::string text;

  private:
    explicit UsbFault(Kind faultKind) : kind(faultKind) {}
    UsbFault(Kind faultKind, std::uint32_t faultValue) : kind(faultKind), value(faultValue) {}
};

using UsbFaultRule = ScriptedFault<UsbFaultPoint, UsbFault>;

}  // namespace simulator
