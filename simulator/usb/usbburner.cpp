#include "simulator/usb/usbburner.h"

#include <algorithm>

#include "simulator/crc64.h"
#include "simulator/usb/virtualusbdevice.h"

namespace simulator {
namespace {

constexpr std::uint64_t kFlashSize = std::uint64_t{1} << 32;  // bytes: all that a record can name

const char* nameOf(std::uint8_t code) {
    switch (code) {
        case kFlashWrite:
            return "FLASH_WRITE";
        case kVerifyOnly:
            return "VERIFY_ONLY";
        case kEraseOnly:
            return "ERASE_ONLY";
        case kSync:
            return "SYNC";
        case kGetResult:
            return "GET_RESULT";
        case kSetCrc64:
            return "SET_CRC64";
        default:
            return "a code that is never sent";
    }
}

}  // namespace

void UsbBurner::powerOn() {
    state_ = State::kIdle;
    crc_.reset();
}

UsbBurner::Response UsbBurner::takeCommand(Bytes record, const UsbTurn& turn) {
    const std::uint32_t first = readU32(record, 0);
    const Command command{static_cast<std::uint8_t>(first >> 25), first & 0x1FFFFFF,
                          readU32(record, 4), readU32(record, 8)};
    if (command.code < kFlashWrite || command.code > kSetCrc64)
        return breach("a command code that is never sent", 0);
    if (!isClean(record, command))
        return {kError, command.code, {}, "bad command record"};
    switch (command.code) {
        case kSync:
            return {kSuccess, kSync};
        case kGetResult:
            return getResult(turn);
        case kSetCrc64:
            return setCrc(record, turn);
        default:
            return begin(record, command, turn);
    }
}

bool UsbBurner::isClean(Bytes record, const Command& command) {
    const std::string name = nameOf(command.code);
    const bool bare = command.code == kSync || command.code == kGetResult;
    const std::uint32_t allowed = bare ? 0 : kFlagCrc64;
    bool clean = true;
    const auto expect = [&](bool condition, const char* text) {
        if (!condition)
            note(name + text);
        clean = clean && condition;
    };
    expect((command.flags & ~allowed) == 0, " has unknown flags");
    expect(!bare || readU64(record, 4) == 0, " has an address or size");
    expect(readU32(record, 12) == 0, " has its reserved bytes set");
    return clean;
}

UsbBurner::Response UsbBurner::getResult(const UsbTurn& turn) {
    switch (state_) {
        case State::kIdle:
            return breach("GET_RESULT without a command", 0);
        case State::kTakingData:
            note("GET_RESULT in the data phase");
            return {kOngoing, running_.code};
        case State::kRunning:
            if (turn.now < resultAt_)
                return {kOngoing, running_.code};
            if (!turn.carryOut)
                return {kSuccess, running_.code};
            outcome_ = finish();
            return outcome_;
        case State::kFinished:
        case State::kFailed:
            break;
    }
    if (turn.inStep && turn.lastAnswered)
        note("GET_RESULT again after the result");
    return outcome_;
}

UsbBurner::Response UsbBurner::setCrc(Bytes record, const UsbTurn& turn) {
    if (state_ == State::kTakingData || state_ == State::kRunning)
        return breach("SET_CRC64 while a command runs", kSetCrc64);
    if (turn.carryOut)
        crc_ = readU64(record, 4);
    return {kSuccess, kSetCrc64};
}

UsbBurner::Response UsbBurner::begin(Bytes record, const Command& command, const UsbTurn& turn) {
    const bool runs = state_ == State::kTakingData || state_ == State::kRunning;
    const bool again = runs && received_ == 0 && std::ranges::equal(record, lastRecord_) &&
                       (!turn.lastAnswered || !turn.inStep);
    if (runs && !again)
        return breach("a command while another runs", command.code);

    const bool needsCrc = command.code == kVerifyOnly ||
                          (command.code == kFlashWrite && (command.flags & kFlagCrc64) != 0);
    if (needsCrc && !again && !crc_)
        return breach("a command that needs SET_CRC64 before it", command.code);
    if (std::uint64_t{command.address} + command.size > kFlashSize)
        return {kError, command.code, {}, "address out of range"};

    const bool isWrite = command.code == kFlashWrite;
    const Response accepted{isWrite ? kReady : kOngoing, command.code,
                            isWrite ? options_->eraseTime : Clock::duration{}};
    if (!turn.carryOut)
        return accepted;
    std::ranges::copy(record, lastRecord_.begin());
    running_ = command;
    if (!again)
        runningCrc_ = crc_.value_or(0);
    crc_.reset();
    received_ = 0;
    receivedCrc_ = 0;
    corrupted_ = false;
    resultAt_ = turn.now + accepted.delay + options_->resultTime;
    state_ = isWrite && command.size > 0 ? State::kTakingData : State::kRunning;
    return accepted;
}

std::optional<UsbBurner::Response> UsbBurner::takeChunk(Bytes chunk, const UsbTurn& turn) {
    if (state_ != State::kTakingData) {
        note("data outside the data phase");
        return std::nullopt;
    }
    if (turn.inStep && !turn.lastAnswered)
        note("a chunk before the last answer was read");
    const std::uint32_t expected =
        std::min(running_.size - received_, static_cast<std::uint32_t>(kChunkSize));
    if (chunk.size() != expected) {
        fail();
        return breach("a chunk of a wrong size", kFlashWrite);
    }
    const Response taken{kReady, kFlashWrite, options_->chunkTime};
    if (!turn.carryOut)
        return taken;

    const std::uint32_t address = running_.address + received_;
    flash_->program(address, chunk);
    if (turn.corruptOffset && *turn.corruptOffset < chunk.size()) {
        const auto wrong = static_cast<std::uint8_t>(chunk[*turn.corruptOffset] ^ 1);
        flash_->program(address + *turn.corruptOffset, Bytes(&wrong, 1));
        corrupted_ = true;
    }
    if ((running_.flags & kFlagCrc64) != 0)
        receivedCrc_ = crc64(receivedCrc_, chunk);
    received_ += expected;
    if (received_ == running_.size) {
        state_ = State::kRunning;
        resultAt_ = turn.now + options_->chunkTime + options_->resultTime;
    }
    return taken;
}

void UsbBurner::fail() {
    state_ = State::kFailed;
    outcome_ = {kError, running_.code, {}, "the command has failed"};
}

UsbBurner::Response UsbBurner::finish() {
    if (running_.code == kEraseOnly)
        flash_->erase(running_.address, running_.size);
    if (!dataIsGood()) {
        state_ = State::kFailed;
        return {kError, running_.code, {}, "crc64 mismatch"};
    }
    state_ = State::kFinished;
    return {kSuccess, running_.code};
}

bool UsbBurner::dataIsGood() {
    if (running_.code == kVerifyOnly)
        return flash_->crc64(running_.address, running_.size) == runningCrc_;
    if (running_.code != kFlashWrite || (running_.flags & kFlagCrc64) == 0)
        return true;
    if (receivedCrc_ != runningCrc_)
        note("the CRC-64 is not that of the data");
    const std::uint64_t programmed =
        corrupted_ ? flash_->crc64(running_.address, running_.size) : receivedCrc_;
    return programmed == runningCrc_;
}

UsbBurner::Response UsbBurner::breach(const char* text, std::uint8_t cmdorg) {
    note(text);
    return {kError, cmdorg, {}, text};
}

void UsbBurner::note(const std::string& text) {
    errors_->add("burner: " + text);
}

}  // namespace simulator
