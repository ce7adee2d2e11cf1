#include "simulator/usb/answerqueue.h"

#include <algorithm>

namespace simulator {

void Packet::append(Bytes more) {
    const std::size_t count = std::min(more.size(), bytes.size() - size);
    std::copy_n(more.begin(), count, bytes.begin() + size);
    size = static_cast<std::uint16_t>(size + count);
}

Packet& AnswerQueue::add(Clock::time_point readableAt) {
    packets_.emplace_back();
    packets_.back().readableAt = readableAt;
    return packets_.back();
}

void AnswerQueue::pop() {
    offset_ = 0;
    if (++first_ == packets_.size())
        clear();
}

void AnswerQueue::clear() {
    packets_.clear();
    first_ = 0;
    offset_ = 0;
}

void AnswerQueue::drain(Clock::time_point now) {
    while (!empty() && front().readableAt <= now)
        pop();
}

std::size_t AnswerQueue::unreadBytes() const {
    std::size_t bytes = 0;
    for (std::size_t i = first_; i < packets_.size(); ++i)
        bytes += packets_[i].size;
    return bytes - offset_;
}

}  // namespace simulator
