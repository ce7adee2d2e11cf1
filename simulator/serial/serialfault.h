// The faults that a virtual serial device can be told to show, and at which requests.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "simulator/faultscript.h"

namespace simulator {

// The requests of the host, by the peer that is asked; and what it says at a wrong rate.
enum class SerialFaultPoint {
    kRomSync,
    kRamBegin,
    kRamData,
    kRamEnd,
    kProxySync,
    kChangeBaudrate,
    kFlashBegin,
    kFlashData,
    kMd5,
    kFlashEnd,
    kWrongRate,  // a burst of bytes that the device cannot read; knows rawAnswer only
};
constexpr std::size_t kSerialFaultPoints = 11;

class SerialFault {
  public:
    enum class Kind {
        kNone,
        // The request is not carried out.
        kSwallow,
        kRefuse,
        kStall,
        kUnplug,
        kRawAnswer,
        // The request is carried out, its answer suffers.
        kSilence,
        kLateAnswer,
        kCutAnswer,
        kNoise,
        kLongFrame,
        kEarlierAnswer,
        kWrongDigest,
        kUnplugInAnswer,
        // The data suffers, the answer does not.
        kCorrupt,
        // Nothing suffers.
        kMeanwhile,
    };

    SerialFault() = default;

    // The request reaches nobody.
    static SerialFault swallow() { return SerialFault(Kind::kSwallow); }
    // It is refused with these two bytes; they should not both be 0.
    static SerialFault refuse(std::uint8_t data0, std::uint8_t data1) {
        return {Kind::kRefuse, data0 | std::uint32_t{data1} << 8};
    }
    // From this request on nothing is heard and nothing said for so long, or until power-on.
    static SerialFault stall(std::chrono::milliseconds time = std::chrono::milliseconds::max()) {
        SerialFault fault(Kind::kStall);
        fault.time = time;
        return fault;
    }
    // The device leaves when it has got the request. VirtualSerialDevice::unplugAtByte() can do so
    // in the middle of one.
    static SerialFault unplug() { return SerialFault(Kind::kUnplug); }
    // These bytes come for an answer, as they are.
    static SerialFault rawAnswer(std::string bytes) {
        SerialFault fault(Kind::kRawAnswer);
        fault.before = std::move(bytes);
        return fault;
    }
    static SerialFault badEscape() { return rawAnswer("\xC0\x01\xDB\x01\x02\xC0"); }
    // A host may take this for the answer that it got before.
    static SerialFault emptyFrame() { return rawAnswer("\xC0\xC0"); }

    // No answer comes.
    static SerialFault silence() { return SerialFault(Kind::kSilence); }
    // The answer comes so much later.
    static SerialFault lateAnswer(std::chrono::milliseconds time) {
        SerialFault fault(Kind::kLateAnswer);
        fault.time = time;
        return fault;
    }
    // So many bytes of the answer's frame come, and the rest after the pause.
    static SerialFault cutAnswer(std::uint32_t bytes, std::chrono::milliseconds pause) {
        SerialFault fault(Kind::kCutAnswer, bytes);
        fault.time = pause;
        return fault;
    }
    // These bytes come with the answer's frame, before it and behind it.
    static SerialFault noise(std::string before, std::string behind = {}) {
        SerialFault fault(Kind::kNoise);
        fault.before = std::move(before);
        fault.behind = std::move(behind);
        return fault;
    }
    // The answer is filled up to so many plain bytes.
    static SerialFault longFrame(std::uint32_t size) { return {Kind::kLongFrame, size}; }
    // Instead of the answer comes a good one to an earlier request of another kind, or to a SYNC.
    static SerialFault earlierAnswer() { return SerialFault(Kind::kEarlierAnswer); }
    // For MD5: the last bit of the digest is wrong.
    static SerialFault wrongDigest() { return SerialFault(Kind::kWrongDigest); }
    // The device leaves when so many bytes of the answer's frame have been sent.
    static SerialFault unplugInAnswer(std::uint32_t bytes) {
        return {Kind::kUnplugInAnswer, bytes};
    }

    // For FLASH_DATA: the byte at this offset of the block gets into the flash with one bit wrong.
    static SerialFault corrupt(std::uint32_t offset) { return {Kind::kCorrupt, offset}; }

    // The device does this, on its own thread, before it turns to the request, and then serves it
    // as ever. It must not wait for anybody who asks the device.
    static SerialFault meanwhile(std::function<void()> what) {
        SerialFault fault(Kind::kMeanwhile);
        fault.what = std::move(what);
        return fault;
    }

    bool carriesOut() const { return kind == Kind::kNone || kind >= Kind::kSilence; }

    Kind kind = Kind::kNone;
    std::uint32_t value = 0;  // number of bytes, or the refusal's two
    std::chrono::milliseconds time{};
    std::string before;
    std::string behind;
    std::function<void()> what;

  private:
    explicit SerialFault(Kind faultKind) : kind(faultKind) {}
    SerialFault(Kind faultKind, std::uint32_t faultValue) : kind(faultKind), value(faultValue) {}
};

using SerialFaultRule = ScriptedFault<SerialFaultPoint, SerialFault>;

}  // namespace simulator
