// What the benchmarks measure and burn.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
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
