// What the benchmarks measure and burn.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename Work>
double secondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return secondsSince(start);
}

// Of all threads of the program, in seconds.
inline double processorTime() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// Runs another program, for a look at how long that takes; false if it failed or is not there.
inline bool runCommand(const std::string& command) {
    // Nothing else runs in a benchmark.
    return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe)
}

// Sees to it that a cost grows no faster than what it is the cost of: the benchmark is run with
// growing sizes, and each may cost twice as much per unit as the cheapest before it, since memory
// gets slower the more of it is in use.
class Growth {
  public:
    void check(benchmark::State& state, double units, double cost) {
        constexpr double kMost = 2;
        const double perUnit = cost / units;
        if (cheapest_ != 0 && perUnit > kMost * cheapest_)
            state.SkipWithError(("grows faster than its input: " +
                                 std::to_string(perUnit / cheapest_) + " times as much a unit")
                                    .c_str());
        cheapest_ = cheapest_ == 0 ? perUnit : std::min(cheapest_, perUnit);
    }

  private:
    double cheapest_ = 0;
};

// An image of so many bytes. They are spread evenly, so that about one in 128 needs an escape on a
// serial line.
inline std::vector<std::uint8_t> evenImage(std::size_t size) {
    std::vector<std::uint8_t> image(size);
    std::uint32_t state = 1;
    for (std::uint8_t& byte : image) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return image;
}
