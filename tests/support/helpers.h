// Small helps of many tests: waiting for what nobody reports, and looking at what was printed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

// Waits for something that another thread or process does; false if that does not happen.
template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

inline std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

// What is printed and traced while the body runs.
struct Output {
    std::string printed;
    std::string traced;
};

template <typename Body>
Output outputOf(Body body) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}
