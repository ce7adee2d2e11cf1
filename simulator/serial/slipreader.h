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
    enum class Event { None, Frame, Stray, BadEscape, TooLong };

    static constexpr std::size_t kLongest = 8 + 16 + 4096;  // a request with a full block

    Event take(std::uint8_t byte);
    // After Event::Frame: its plain bytes. They may be moved away.
    std::vector<std::uint8_t>& frame() { return frame_; }
    bool inFrame() const { return state_ == State::Frame || state_ == State::Escape; }
    void reset();

  private:
    enum class State { Idle, Frame, Escape, Lost };

    Event store(std::uint8_t byte);

    State state_ = State::Idle;
    std::vector<std::uint8_t> frame_;
};

}  // namespace simulator
