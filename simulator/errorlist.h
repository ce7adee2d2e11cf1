// The breaches that a virtual device or bus has seen, as texts. The simulator's tests and those of
// the product ask that there be none.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace simulator {

// May be used from any thread.
class ErrorList {
  public:
    void add(std::string text) {
        const std::lock_guard guard(lock_);
        if (texts_.size() < kMost)
            texts_.push_back(std::move(text));
    }

    std::vector<std::string> texts() const {
        const std::lock_guard guard(lock_);
        return texts_;
    }

  private:
    static constexpr std::size_t kMost = 100;  // a host gone wild must not fill the memory

    mutable std::mutex lock_;
    std::vector<std::string> texts_;
};

}  // namespace simulator
