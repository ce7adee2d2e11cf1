// The scripted faults of a virtual device: a rule says at which message, how often and what.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace simulator {

// Rules are asked in the order of their making; the first that strikes takes the message, and the
// later ones do not count it.
template <typename Point, typename What>
struct ScriptedFault {
    static constexpr std::uint32_t kAlways = UINT32_MAX;

    Point where;
    What what;
    std::uint32_t skip = 0;   // messages of this kind that pass first
    std::uint32_t times = 1;  // messages that it strikes then
};

// Used by a device under its lock.
template <typename Point, typename What, std::size_t points>
class FaultScript {
  public:
    using Rule = ScriptedFault<Point, What>;

    void add(Rule rule) { rules_.push_back(std::move(rule)); }

    // The fault that befalls this message; the message is counted. Valid until the next `add`.
    const What& strike(Point point) {
        static const What none;
        ++counts_[static_cast<std::size_t>(point)];
        for (Rule& rule : rules_) {
            if (rule.where != point || rule.times == 0)
                continue;
            if (rule.skip > 0) {
                --rule.skip;
                continue;
            }
            if (rule.times != Rule::kAlways)
                --rule.times;
            return rule.what;
        }
        return none;
    }

    // How many messages of this kind came.
    std::uint32_t count(Point point) const { return counts_[static_cast<std::size_t>(point)]; }

  private:
    std::vector<Rule> rules_;
    std::array<std::uint32_t, points> counts_{};
};

}  // namespace simulator
