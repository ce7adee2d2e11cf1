// SLIP framing (RFC 1055) of one port: a frame to send is made whole, a received one is put
// together from reads that may cut it anywhere.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class SlipCodec {
  public:
    enum class Result {
        kTooLong = 0,     // more than a frame may hold
        kBadEscape = 1,   // an escape byte with a wrong byte behind it
        kIncomplete = 2,  // nothing wrong so far; a later call may complete the frame
        kComplete = 3,
    };

    static constexpr std::size_t kEncodedSize = 10240;  // bytes of the longest frame to send
    static constexpr std::size_t kDecodedSize = 64;     // a received frame is shorter

    // Frames `length` bytes. `output` then points to the frame, which stays until the next call,
    // and `outputLength` tells its length. Gives the number of bytes taken, or -1 if the frame does
    // not fit.
    int slip_encode(const std::uint8_t* plain, std::size_t length, const std::uint8_t*& output,
                    std::size_t& outputLength);

    // Takes received bytes up to the end of a frame or a fault; what follows those is dropped. With
    // kComplete `input` points to the buffer of frames, of which `inputLength` bytes are new; those
    // behind are left from earlier frames. A `count` of 0 or below is no input.
    Result slip_decode(const std::uint8_t* raw, int count, const std::uint8_t*& input,
                       std::size_t& inputLength);

    // Whether slip_decode would give kComplete for these bytes.
    bool wouldComplete(const std::uint8_t* raw, int count) const;

  private:
    enum class State { kIdle, kStart, kInFrame, kEscape, kEnd };

    std::array<std::uint8_t, kEncodedSize> encoded_{};
    std::array<std::uint8_t, kDecodedSize> decoded_{};
    State state_ = State::kIdle;
    std::size_t stored_ = 0;
};
