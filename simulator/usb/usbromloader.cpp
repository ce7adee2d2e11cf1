#include "simulator/usb/usbromloader.h"

#include <algorithm>

namespace simulator {
namespace {

constexpr std::size_t kHeaderSize = 24;  // of MEM_BEGIN and MEM_DATA
constexpr std::size_t kEndSize = 16;

std::uint8_t checksum(Bytes payload) {
    std::uint8_t sum = 0xEF;
    for (const std::uint8_t byte : payload)
        sum ^= byte;
    return sum;
}

}  // namespace

void UsbRomLoader::powerOn() {
    state_ = State::kBegin;
    fresh_ = false;
    totalSize_ = 0;
    nextBlock_ = 0;
    image_.clear();
    last_.clear();
    lastCarriedOut_ = false;
}

bool UsbRomLoader::repeats(Bytes message) const {
    return !last_.empty() && std::ranges::equal(message, last_);
}

std::uint8_t UsbRomLoader::take(Bytes message, const UsbTurn& turn) {
    bool lastAnswered = turn.lastAnswered;
    const bool begins = message.size() > 1 && message[1] == kMemBegin;
    if (fresh_ && begins) {
        powerOn();
        lastAnswered = true;
    }
    fresh_ = false;
    if (state_ == State::kDead)
        return breach("a message after a fatal status");

    if (!repeats(message)) {
        if (turn.inStep && !lastAnswered)
            breach("a new message before the last one was answered with 0");
        lastCarriedOut_ = false;
        last_.assign(message.begin(), message.end());
    } else if (turn.inStep && lastAnswered) {
        return breach("a message again that was answered with 0");
    }

    if (lastCarriedOut_)
        return 0;
    const std::uint8_t status = judge(message);
    if (status >= kFatalStatus)
        die();
    if (status == 0 && turn.carryOut) {
        carryOut(message);
        lastCarriedOut_ = true;
    }
    return status;
}

std::uint8_t UsbRomLoader::judge(Bytes message) {
    if (message.size() < 8)
        return breach("a message of " + std::to_string(message.size()) + " bytes");
    switch (message[1]) {
        case kMemBegin:
            return judgeBegin(message);
        case kMemData:
            return judgeData(message);
        case kMemEnd:
            return judgeEnd(message);
        default:
            return breach("unknown command " + std::to_string(message[1]));
    }
}

bool UsbRomLoader::isWellFormed(Bytes message, std::size_t size, const char* name) {
    return expect(message.size() == size, std::string(name) + " has a wrong size") &&
           expect(message[0] == 0, std::string(name) + " has byte 0 set") &&
           expect(readU16(message, 2) == size - 8, std::string(name) + " has a wrong length field");
}

std::uint8_t UsbRomLoader::judgeBegin(Bytes message) {
    if (!isWellFormed(message, kHeaderSize, "MEM_BEGIN"))
        return kBadMessage;
    const std::uint32_t total = readU32(message, 8);
    const bool good =
        expect(state_ == State::kBegin, "MEM_BEGIN during a download") &&
        expect(readU32(message, 4) == 0, "MEM_BEGIN has a checksum") &&
        expect(total > 0, "MEM_BEGIN has a total length of 0") &&
        expect(readU32(message, 12) == (std::uint64_t{total} + kBlockSize - 1) / kBlockSize,
               "MEM_BEGIN has a wrong number of blocks") &&
        expect(readU32(message, 16) == kBlockSize, "MEM_BEGIN has a wrong block size") &&
        expect(readU32(message, 20) == 0, "MEM_BEGIN has its reserved bytes set");
    return good ? 0 : kBadMessage;
}

std::uint8_t UsbRomLoader::judgeData(Bytes message) {
    if (!expect(state_ == State::kData, "MEM_DATA outside a download") ||
        !expect(message.size() > kHeaderSize, "MEM_DATA has a wrong size"))
        return kBadMessage;
    const std::uint32_t size = readU32(message, 8);
    if (!isWellFormed(message, kHeaderSize + std::uint64_t{size}, "MEM_DATA"))
        return kBadMessage;
    const std::size_t missing = totalSize_ - image_.size();
    const bool good =
        expect(size == std::min(missing, kBlockSize), "MEM_DATA has a wrong payload length") &&
        expect(readU32(message, 12) == nextBlock_, "MEM_DATA has a wrong sequence number") &&
        expect(readU64(message, 16) == 0, "MEM_DATA has its reserved bytes set");
    if (!good)
        return kBadMessage;
    if (!expect(readU32(message, 4) == checksum(message.subspan(kHeaderSize)),
                "MEM_DATA has a wrong checksum"))
        return kBadChecksum;
    return 0;
}

std::uint8_t UsbRomLoader::judgeEnd(Bytes message) {
    if (!isWellFormed(message, kEndSize, "MEM_END"))
        return kBadMessage;
    const bool good = expect(state_ == State::kData && image_.size() == totalSize_,
                             "MEM_END before the whole image") &&
                      expect(readU32(message, 4) == 0, "MEM_END has a checksum") &&
                      expect(readU64(message, 8) == 0, "MEM_END has its reserved bytes set");
    return good ? 0 : kBadMessage;
}

void UsbRomLoader::carryOut(Bytes message) {
    switch (message[1]) {
        case kMemBegin:
            totalSize_ = readU32(message, 8);
            state_ = State::kData;
            break;
        case kMemData:
            image_.insert(image_.end(), message.begin() + kHeaderSize, message.end());
            ++nextBlock_;
            break;
        default:
            state_ = State::kEnded;
            break;
    }
}

std::uint8_t UsbRomLoader::breach(const std::string& text) {
    errors_->add("ROM loader: " + text);
    return kBadMessage;
}

bool UsbRomLoader::expect(bool condition, const std::string& text) {
    if (!condition)
        breach(text);
    return condition;
}

}  // namespace simulator
