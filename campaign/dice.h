// Where the campaign's chances come from: the same ones for the same seed.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace campaign {

class Dice {
  public:
    explicit Dice(std::uint32_t seed) : engine_(seed) {}

    // From 0 up to, but not including, `end`, which is above 0.
    std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(engine_() % end); }
    std::uint32_t between(std::uint32_t first, std::uint32_t last) {
        return first + below(last - first + 1);
    }
    bool chance(std::uint32_t percent) { return below(100) < percent; }

    template <typename Value>
    const Value& pick(const std::vector<Value>& values) {
        return values[below(static_cast<std::uint32_t>(values.size()))];
    }

  private:
    std::mt19937 engine_;
};

}  // namespace campaign
