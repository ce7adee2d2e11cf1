// What a virtual USB device has ready, or will have, on one IN endpoint.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "simulator/usb/usbwire.h"

namespace simulator {

using Clock = std::chrono::steady_clock;

// How many bytes the host has to ask for when it comes for an answer: that many, or at most that
// many, or anything if 0.
struct Asked {
    std::uint16_t size = 0;
    bool exactly = true;
};

// One piece of an answer. The host's transfer ends with it, unless it is the first of two halves.
struct Packet {
    bool stalls = false;  // it is no answer: the transfer that comes for one fails
    bool endsTransfer = true;
    Asked asked;
    std::uint16_t size = 0;
    // The message that is well answered once this has been read; 0 if it is no such answer.
    std::uint64_t answers = 0;
    Clock::time_point readableAt;
    std::array<std::uint8_t, 255> bytes;

    void append(Bytes more);
    Bytes content() const { return Bytes(bytes).first(size); }
};

// In order: nothing overtakes a packet that is not readable yet. Allocates nothing once it has
// grown.
class AnswerQueue {
  public:
    // The new packet at the end, empty and readable at that time.
    Packet& add(Clock::time_point readableAt);
    bool empty() const { return first_ == packets_.size(); }
    Packet& front() { return packets_[first_]; }
    // Bytes of the front packet that have been read already.
    std::size_t offset() const { return offset_; }
    void consume(std::size_t bytes) { offset_ += bytes; }
    void pop();
    void clear();
    // Drops what is readable.
    void drain(Clock::time_point now);
    std::size_t unreadBytes() const;

  private:
    std::vector<Packet> packets_;
    std::size_t first_ = 0;
    std::size_t offset_ = 0;
};

}  // namespace simulator
