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
        const bool complete = state_ == State::Frame;
        const bool cut = state_ == State::Escape;
        if (state_ == State::Idle) {
            frame_.clear();
            state_ = State::Frame;
            return Event::None;
        }
        state_ = State::Idle;
        if (cut)
            return Event::BadEscape;
        return complete ? Event::Frame : Event::None;
    }
    switch (state_) {
        case State::Idle:
            return Event::Stray;
        case State::Frame:
            if (byte != kEscape)
                return store(byte);
            state_ = State::Escape;
            return Event::None;
        case State::Escape:
            state_ = State::Frame;
            if (byte == kEscapedEnd)
                return store(kEnd);
            if (byte == kEscapedEscape)
                return store(kEscape);
            state_ = State::Lost;
            return Event::BadEscape;
        case State::Lost:
            break;
    }
    return Event::None;
}

SlipReader::Event SlipReader::store(std::uint8_t byte) {
    if (frame_.size() == kLongest) {
        state_ = State::Lost;
        return Event::TooLong;
    }
    frame_.push_back(byte);
    return Event::None;
}

void SlipReader::reset() {
    state_ = State::Idle;
    frame_.clear();
}

}  // namespace simulator
