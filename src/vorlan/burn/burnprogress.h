// The percent of one flash write, as the operator sees it: the data itself reaches 45, waiting for
// the device moves it on by half a percent a turn, and only the confirmed result makes it 100.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>

class BurnProgress {
  public:
    explicit BurnProgress(std::uint32_t size) : size_(size) {}

    // `sent` bytes have been accepted by the device.
    void dataSent(std::uint32_t sent) {
        constexpr std::uint64_t kDataShare = 45;
        data_ = static_cast<unsigned>((sent * kDataShare + size_ / 2) / size_);
    }

    // One more turn of waiting for the device to program a chunk.
    void waited() {
        constexpr float kTurn = 0.5F;
        constexpr float kWaitingShare = 50.0F;
        waiting_ = std::min(waiting_ + kTurn, kWaitingShare);
    }

    // The percent to report, if it has moved by more than half a percent since the last report.
    std::optional<unsigned> due() {
        const float value = static_cast<float>(data_) + waiting_;
        if (value - static_cast<float>(reported_) <= 0.5F)
            return std::nullopt;
        reported_ = static_cast<unsigned>(std::lround(value));
        return reported_;
    }

  private:
    std::uint32_t size_;
    unsigned data_ = 0;
    float waiting_ = 0.0F;
    unsigned reported_ = 0;
};
