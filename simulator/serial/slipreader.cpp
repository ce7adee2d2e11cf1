#include "simulator/serial/slipreader.h"

namespace simulator {
namespace {

constexpr std::uint8_t kEnd = 0xC0;
constexpr std::uint8_t kEscape = 0xDB;
constexpr std::uint8_t kEscapedEnd = 0xDC;
constexpr std::uint8_t kEscapedEscape = 0xDD;

}  // namespace

std::vector<std::uint8_t> slipFrame(Bytes plain) {
    std::vector<std::uint8_t> frame{kEnd};
    for (const std::uint8_t byte : plain) {
        if (byte == kEnd || byte == kEscape) {
            frame.push_back(kEscape);
            frame.push_back(byte == kEnd ? kEscapedEnd : kEscapedEscape);
        } else {
            frame.push_back(byte);
        }
    }
    frame.push_back(kEnd);
    return frame;
}

SlipReader::Event SlipReader::take(std::uint8_t byte) {
    if (byte == kEnd) {
        const bool complete = state_ == State::kFrame;
        const bool cut = state_ == State::kEscape;
        if (state_ == State::kIdle) {
            frame_.clear();
            state_ = State::kFrame;
            return Event::kNone;
        }
        state_ = State::kIdle;
        if (cut)
            return Event::kBadEscape;
        return complete ? Event::kFrame : Event::kNone;
    }
    switch (state_) {
        case State::kIdle:
            return Event::kStray;
        case State::kFrame:
            if (byte != kEscape)
                return store(byte);
            state_ = State::kEscape;
            return Event::kNone;
        case State::kEscape:
            state_ = State::kFrame;
            if (byte == kEscapedEnd)
                return store(kEnd);
            if (byte == kEscapedEscape)
                return store(kEscape);
            state_ = State::kLost;
            return Event::kBadEscape;
        case State::kLost:
            break;
    }
    return Event::kNone;
}

SlipReader::Event SlipReader::store(std::uint8_t byte) {
    if (frame_.size() == kLongest) {
        state_ = State::kLost;
        return Event::kTooLong;
    }
    frame_.push_back(byte);
    return Event::kNone;
}

void SlipReader::reset() {
    state_ = State::kIdle;
    frame_.clear();
}

}  // namespace simulator
