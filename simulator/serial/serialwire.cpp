#include "simulator/serial/serialwire.h"

#include <algorithm>

namespace simulator {
namespace {

struct CommandForm {
    std::uint8_t code;
    const char* name;
    std::size_t dataSize;  // of a DATA command: the least
};

constexpr std::array<CommandForm, 9> kCommands = {{
    {kUartFlashBegin, "FLASH_BEGIN", 16},
    {kUartFlashData, "FLASH_DATA", kBlockHeaderSize + 1},
    {kUartFlashEnd, "FLASH_END", 4},
    {kUartRamBegin, "RAM_BEGIN", 16},
    {kUartRamEnd, "RAM_END", 8},
    {kUartRamData, "RAM_DATA", kBlockHeaderSize + 1},
    {kUartSync, "SYNC", 36},
    {kUartChangeBaudrate, "CHANGE_BAUDRATE", 8},
    {kUartMd5, "MD5", 16},
}};

const CommandForm* formOf(std::uint8_t command) {
    const auto* const found = std::ranges::find(kCommands, command, &CommandForm::code);
    return found != kCommands.end() ? found : nullptr;
}

bool isCombine(Bytes data) {
    static constexpr std::array<std::uint8_t, 4> kHead = {0x07, 0x07, 0x12, 0x20};
    return std::ranges::equal(data.first(kHead.size()), kHead) &&
           std::ranges::all_of(data.subspan(kHead.size()),
                               [](std::uint8_t byte) { return byte == 0x55; });
}

}  // namespace

std::string commandName(std::uint8_t command) {
    const CommandForm* form = formOf(command);
    return form != nullptr ? form->name : "command " + std::to_string(command);
}

bool isBlockCommand(std::uint8_t command) {
    return command == kUartFlashData || command == kUartRamData;
}

std::uint8_t blockCheck(Bytes block) {
    if (block.empty())
        return 0;
    std::uint8_t check = 0xEF;
    for (const std::uint8_t byte : block)
        check ^= byte;
    return check;
}

bool sameRequest(Bytes frame, Bytes other) {
    constexpr std::size_t kMarks = kPacketHeaderSize + 8;
    constexpr std::size_t kBehindMarks = kPacketHeaderSize + kBlockHeaderSize;
    if (frame.size() != other.size())
        return false;
    if (frame.size() < kBehindMarks || !isBlockCommand(frame[1]))
        return std::ranges::equal(frame, other);
    return std::ranges::equal(frame.first(kMarks), other.first(kMarks)) &&
           std::ranges::equal(frame.subspan(kBehindMarks), other.subspan(kBehindMarks));
}

std::optional<SerialRequest> parseRequest(Bytes frame, ErrorList& errors, Refusal& refusal) {
    refusal = Refusal::kBadPacket;
    if (frame.size() < kPacketHeaderSize) {
        errors.add("a packet of " + std::to_string(frame.size()) + " bytes");
        return std::nullopt;
    }
    const SerialRequest request{frame[1], frame.subspan(kPacketHeaderSize)};
    const std::string name = commandName(request.command);
    const auto breach = [&](const char* text) {
        errors.add(name + " " + text);
        return std::nullopt;
    };
    const CommandForm* form = formOf(request.command);
    if (form == nullptr)
        return breach("is unknown");
    if (frame[0] != 0)
        return breach("has a wrong DIR");
    if (readU16(frame, 2) != request.data.size())
        return breach("has a wrong SIZE");

    const bool hasBlock = isBlockCommand(request.command);
    if (hasBlock ? request.data.size() < form->dataSize : request.data.size() != form->dataSize)
        return breach("has a wrong length");
    if (hasBlock && request.word(0) != request.block().size())
        return breach("has a wrong length in its block header");
    if (request.command == kUartSync && !isCombine(request.data))
        return breach("has a wrong pattern");
    if (readU32(frame, 4) != (hasBlock ? blockCheck(request.block()) : 0U)) {
        refusal = Refusal::kBadCheck;
        return breach("has a wrong CHECK");
    }
    refusal = Refusal::kNone;
    return request;
}

std::vector<std::uint8_t> answerPacket(std::uint8_t command, const SerialAnswer& answer) {
    const bool refused = answer.refusal != Refusal::kNone;
    const std::uint8_t size = answer.digest ? 18 : 2;
    std::vector<std::uint8_t> packet{
        1,    command, size, 0,       0xA5,
        0xC0, 0xDB,    0x5A, refused, static_cast<std::uint8_t>(answer.refusal)};
    packet.resize(kPacketHeaderSize + size);
    if (answer.digest)
        std::copy(answer.digest->begin(), answer.digest->end(), packet.begin() + 10);
    return packet;
}

}  // namespace simulator
