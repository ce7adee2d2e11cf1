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
    kMemBegin,
    kMemData,
    kMemEnd,
    kFlashWrite,
    kVerifyOnly,
    kEraseOnly,
    kSync,
    kGetResult,
    kSetCrc64,
    kChunk,        // one transfer of image data to the burner image
    kDescription,  // knows the faults of answers only
};
constexpr std::size_t kUsbFaultPoints = 11;

class UsbFault {
  public:
    enum class Kind {
        kNone,
        // The message is not carried out.
        kSwallow,
        kRomStatus,
        kResponse,
        kError,
        kStall,
        kShortWrite,
        kRefuseWrite,
        kUnplug,
        // The message is carried out, its answer suffers.
        kSilence,
        kShortAnswer,
        kCutAnswer,
        kLateAnswer,
        kWrongCmdorg,
        kStallAnswer,
        // The data suffers, the answer does not.
        kCorrupt,
    };

    UsbFault() = default;

    // The message reaches nobody.
    static UsbFault swallow() { return UsbFault(Kind::kSwallow); }
    // The ROM loader refuses with this status.
    static UsbFault romStatus(std::uint8_t status) { return {Kind::kRomStatus, status}; }
    // The burner image answers with this code, naming `cmdorg` or else the command.
    static UsbFault response(std::uint8_t code, std::optional<std::uint8_t> cmdorg = {}) {
        UsbFault fault(Kind::kResponse, code);
        fault.cmdorg = cmdorg;
        return fault;
    }
    // The command fails with this description. `length` is what the answer says of it, else its
    // true length; at most 255 bytes are sent.
    static UsbFault error(std::string description, std::optional<std::uint8_t> length = {}) {
        UsbFault fault(Kind::kError);
        fault.text = std::move(description);
        fault.length = length;
        return fault;
    }
    // The host's transfer fails, and all later ones on its endpoint until the host resets that.
    static UsbFault stall() { return UsbFault(Kind::kStall); }
    // The host's transfer ends well, but with this many bytes only.
    static UsbFault shortWrite(std::uint32_t bytes) { return {Kind::kShortWrite, bytes}; }
    // The device takes this many bytes and then no more, until the host gives up.
    static UsbFault refuseWrite(std::uint32_t bytes = 0) { return {Kind::kRefuseWrite, bytes}; }
    // The device leaves when this many bytes of the message have moved.
    static UsbFault unplug(std::uint32_t bytes = 0) { return {Kind::kUnplug, bytes}; }

    // No answer comes.
    static UsbFault silence() { return UsbFault(Kind::kSilence); }
    // The answer ends after this many bytes.
    static UsbFault shortAnswer(std::uint32_t bytes) { return {Kind::kShortAnswer, bytes}; }
    // The answer comes in two: so many bytes, and the rest after the pause.
    static UsbFault cutAnswer(std::uint32_t bytes, std::chrono::milliseconds pause) {
        UsbFault fault(Kind::kCutAnswer, bytes);
        fault.time = pause;
        return fault;
    }
    // The answer comes so much later.
    static UsbFault lateAnswer(std::chrono::milliseconds time) {
        UsbFault fault(Kind::kLateAnswer);
        fault.time = time;
        return fault;
    }
    static UsbFault wrongCmdorg(std::uint8_t cmdorg) {
        UsbFault fault(Kind::kWrongCmdorg);
        fault.cmdorg = cmdorg;
        return fault;
    }
    // The transfer that comes for the answer fails, and all later ones on its endpoint until the
    // host resets that.
    static UsbFault stallAnswer() { return UsbFault(Kind::kStallAnswer); }

    // The byte at this offset of the chunk gets into the flash with one bit wrong.
    static UsbFault corrupt(std::uint32_t offset) { return {Kind::kCorrupt, offset}; }

    bool carriesOut() const { return kind == Kind::kNone || kind >= Kind::kSilence; }

    Kind kind = Kind::kNone;
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
