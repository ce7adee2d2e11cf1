// What SLIP frames are, written down a second time and as plainly as can be, to compare with.
#pragma once

#include <array>
#include <cstdint>

#include "fuzzing.h"

constexpr std::uint8_t kSlipEnd = 0xC0;
constexpr std::uint8_t kSlipEscape = 0xDB;
constexpr std::size_t kLongestAnswer = 63;  // bytes of a received frame, without its escapes

// The receiving side of a port, one read after the other.
class SlipModel {
  public:
    enum class Result { kTooLong, kBadEscape, kIncomplete, kComplete };

    Result read(const Bytes& raw) {
        for (const std::uint8_t byte : raw) {
            if (!inFrame_) {
                inFrame_ = byte == kSlipEnd;
                escaped_ = false;
                size_ = 0;
            } else if (size_ > kLongestAnswer) {
                return leave(Result::kTooLong);
            } else if (byte == kSlipEnd) {
                return leave(Result::kComplete);
            } else if (escaped_) {
                if (byte != 0xDC && byte != 0xDD)
                    return leave(Result::kBadEscape);
                buffer_[size_++] = byte == 0xDC ? kSlipEnd : kSlipEscape;
                escaped_ = false;
            } else if (byte == kSlipEscape) {
                escaped_ = true;
            } else {
                buffer_[size_++] = byte;
            }
        }
        return Result::kIncomplete;
    }

    bool isIdle() const { return !inFrame_; }
    // Bytes of the last frame; those of earlier, longer ones still stand behind them.
    std::size_t size() const { return size_; }
    const std::array<std::uint8_t, kLongestAnswer + 1>& buffer() const { return buffer_; }

    // Whether the frame says yes to the command, as it stands in the buffer.
    bool acknowledges(std::uint8_t command) const {
        return buffer_[0] == 1 && buffer_[1] == command && buffer_[8] == 0 && buffer_[9] == 0;
    }

  private:
    Result leave(Result result) {
        inFrame_ = false;
        return result;
    }

    std::array<std::uint8_t, kLongestAnswer + 1> buffer_{};
    std::size_t size_ = 0;
    bool inFrame_ = false;
    bool escaped_ = false;
};
