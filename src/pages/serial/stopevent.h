// An event that lets one waiter go on and is then clear again: the operator's stop of a serial
// slot.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "utils/interruption.h"

// Any thread.
class StopEvent {
  public:
    void set() {
        {
            const std::lock_guard guard(lock_);
            set_ = true;
        }
        changed_.notify_one();
    }

    // Returns when the event is set, which clears it, after `duration`, or when the calling thread
    // is interrupted.
    void wait(std::chrono::milliseconds duration) {
        std::unique_lock lock(lock_);
        changed_.wait_for(lock, interruption::current(), duration, [this] { return set_; });
        set_ = false;
    }

  private:
    std::mutex lock_;
    std::condition_variable_any changed_;
    bool set_ = false;
};
