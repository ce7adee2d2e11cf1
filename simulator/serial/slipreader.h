// SLIP framing as the device speaks it: unlike the host's decoder it takes whole packets only, and
// tells everything that is no packet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "simulator/bytes.h"

namespace simulator {

std::vector<std::uint8_t> slipFrame(Bytes plain);

class SlipReader {
  public:
    enum class Event { kNone, kFrame, kStray, kBadEscape, kTooLong };

    static constexpr std::size_t kLongest = 8 + 16 + 4096;  // a request with a full block

    Event take(std::uint8_t byte);
    // After Event::kFrame: its plain bytes. They may be moved away.
    std::vector<std::uint8_t>& frame() { return frame_; }
    bool inFrame() const { return state_ == State::kFrame || state_ == State::kEscape; }
    void reset();

  private:
    enum class State { kIdle, kFrame, kEscape, kLost };

    Event store(std::uint8_t byte);

    State state_ = State::kIdle;
    std::vector<std::uint8_t> frame_;
};

}  // namespace simulator
