// What goes over the serial line between the host and a Vorlan device, as the virtual device and
// tests of the bare line see it. Written apart from the product's own packets, to check them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/bytes.h"
#include "simulator/errorlist.h"

namespace simulator {

enum SerialCommand : std::uint8_t {
    kUartFlashBegin = 2,
    kUartFlashData = 3,
    kUartFlashEnd = 4,
    kUartRamBegin = 5,
    kUartRamEnd = 6,
    kUartRamData = 7,
    kUartSync = 8,
    kUartChangeBaudrate = 15,
    kUartMd5 = 19,
};

constexpr std::uint32_t kFirstRate = 115200;
constexpr std::size_t kPacketHeaderSize = 8;
constexpr std::size_t kBlockHeaderSize = 16;
constexpr std::uint32_t kRamBlockSize = 2048;
constexpr std::uint32_t kFlashBlockSize = 4096;
constexpr std::uint32_t kResendMark = 0x55555555;
constexpr std::uint32_t kFlashWindow = 0x80000000;  // where the CPU sees the flash
constexpr std::uint32_t kFlashWindowSize = 0x800000;

using Digest = std::array<std::uint8_t, 16>;

// Why a request is refused: DATA1 of the answer, with DATA0 set to 1.
enum class Refusal : std::uint8_t { kNone, kBadPacket, kBadCheck, kBadOrder };

// A well-formed request; views into the frame.
struct SerialRequest {
    std::uint8_t command;
    Bytes data;  // behind the packet's header

    std::uint32_t word(std::size_t index) const { return readU32(data, 4 * index); }
    // Of the two DATA commands.
    Bytes block() const { return data.subspan(kBlockHeaderSize); }
};

// The peer's answer before any fault shapes it.
struct SerialAnswer {
    Refusal refusal = Refusal::kNone;
    std::optional<Digest> digest;
};

// "RAM_DATA", or the number of an unknown command.
std::string commandName(std::uint8_t command);

bool isBlockCommand(std::uint8_t command);
// 0xEF and every byte of the block; 0 for an empty one.
std::uint8_t blockCheck(Bytes block);

// Whether two frames are the same request; a mark of resending makes no difference.
bool sameRequest(Bytes frame, Bytes other);

// Checks what every request has to keep: DIR, SIZE, CHECK, a known COM and the length and the
// block header that belong to it. Breaches go to `errors`; `refusal` tells what to answer.
std::optional<SerialRequest> parseRequest(Bytes frame, ErrorList& errors, Refusal& refusal);

// The plain packet. The fields that no host may examine have no obvious value, and make it escape.
std::vector<std::uint8_t> answerPacket(std::uint8_t command, const SerialAnswer& answer);

}  // namespace simulator
