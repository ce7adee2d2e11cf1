// When the bytes of one direction of a serial line have passed: start, 8 data and stop bit each.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace simulator {

using Clock = std::chrono::steady_clock;

class LinePace {
  public:
    // One that is not paced takes no time.
    explicit LinePace(bool paced) : paced_(paced) {}

    // Puts the bytes on the line, behind all before them and not before `from`. When the last of
    // them has passed.
    Clock::time_point carry(std::size_t bytes, std::uint32_t rate, Clock::time_point from) {
        freeAt_ = std::max(freeAt_, from);
        if (paced_ && rate != 0)
            freeAt_ += std::chrono::nanoseconds(kBitsPerByte * 1'000'000'000 * bytes / rate);
        return freeAt_;
    }

    Clock::time_point freeAt() const { return freeAt_; }

  private:
    static constexpr std::uint64_t kBitsPerByte = 10;

    bool paced_;
    Clock::time_point freeAt_;
};

}  // namespace simulator
