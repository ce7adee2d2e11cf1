#include "vorlan/uart/slipcodec.h"

#include <cstring>

namespace {

constexpr std::uint8_t kDelimiter = 0xC0;
constexpr std::uint8_t kEscape = 0xDB;
constexpr std::uint8_t kEscapedDelimiter = 0xDC;
constexpr std::uint8_t kEscapedEscape = 0xDD;

// Plain bytes are looked at a word at a time: most words need no escape.
using Word = std::uint64_t;

bool hasByte(Word word, std::uint8_t byte) {
    constexpr Word kOnes = 0x0101010101010101;
    constexpr Word kHighBits = 0x8080808080808080;
    const Word zeroWhereEqual = word ^ (kOnes * byte);
    return ((zeroWhereEqual - kOnes) & ~zeroWhereEqual & kHighBits) != 0;
}

}  // namespace

int SlipCodec::slip_encode(const std::uint8_t* plain, std::size_t length,
                           const std::uint8_t*& output, std::size_t& outputLength) {
    std::uint8_t* to = encoded_.data();
    std::uint8_t* const end = to + encoded_.size();
    const auto room = [&] { return static_cast<std::size_t>(end - to); };

    *to++ = kDelimiter;
    for (std::size_t i = 0; i < length;) {
        if (length - i >= sizeof(Word) && room() >= sizeof(Word)) {
            Word word;
            std::memcpy(&word, plain + i, sizeof word);
            if (!hasByte(word, kDelimiter) && !hasByte(word, kEscape)) {
                std::memcpy(to, &word, sizeof word);
                to += sizeof word;
                i += sizeof word;
                continue;
            }
        }
        const std::uint8_t byte = plain[i];
        const bool escaped = byte == kDelimiter || byte == kEscape;
        if (room() < (escaped ? 2 : 1))
            return -1;
        if (escaped)
            *to++ = kEscape;
        if (byte == kDelimiter)
            *to++ = kEscapedDelimiter;
        else
            *to++ = escaped ? kEscapedEscape : byte;
        ++i;
    }
    if (room() < 1)
        return -1;
    *to++ = kDelimiter;
    output = encoded_.data();
    outputLength = static_cast<std::size_t>(to - encoded_.data());
    return static_cast<int>(length);
}

SlipCodec::Result SlipCodec::slip_decode(const std::uint8_t* raw, int count,
                                         const std::uint8_t*& input, std::size_t& inputLength) {
    for (int i = 0; i < count; ++i) {
        if (stored_ == decoded_.size()) {
            state_ = State::kIdle;
            stored_ = 0;
            return Result::kTooLong;
        }
        const std::uint8_t byte = raw[i];
        // Inside an escape, too, it ends the frame.
        if (byte == kDelimiter)
            state_ = state_ == State::kIdle ? State::kStart : State::kEnd;
        switch (state_) {
            case State::kIdle:
                break;
            case State::kStart:
                state_ = State::kInFrame;
                stored_ = 0;
                break;
            case State::kInFrame:
                if (byte == kEscape)
                    state_ = State::kEscape;
                else
                    decoded_[stored_++] = byte;
                break;
            case State::kEscape:
                if (byte != kEscapedDelimiter && byte != kEscapedEscape) {
                    state_ = State::kIdle;
                    return Result::kBadEscape;
                }
                decoded_[stored_++] = byte == kEscapedDelimiter ? kDelimiter : kEscape;
                state_ = State::kInFrame;
                break;
            case State::kEnd:
                state_ = State::kIdle;
                input = decoded_.data();
                inputLength = stored_;
                return Result::kComplete;
        }
    }
    return Result::kIncomplete;
}

bool SlipCodec::wouldComplete(const std::uint8_t* raw, int count) const {
    SlipCodec trial = *this;
    const std::uint8_t* input = nullptr;
    std::size_t inputLength = 0;
    return trial.slip_decode(raw, count, input, inputLength) == Result::kComplete;
}
