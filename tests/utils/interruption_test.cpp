#include "utils/interruption.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

TEST(Interruption, EndsASleepAtOnceAndEveryLaterOne) {
    std::stop_source source;
    bool firstSleep = true;
    bool secondSleep = true;
    bool seen = false;
    const auto start = std::chrono::steady_clock::now();
    std::thread worker([&] {
        const interruption::Scope scope(source.get_token());
        firstSleep = interruption::sleep(60s);
        secondSleep = interruption::sleep(60s);
        seen = interruption::requested();
    });
    source.request_stop();
    worker.join();
    EXPECT_FALSE(firstSleep);
    EXPECT_FALSE(secondSleep);
    EXPECT_TRUE(seen);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST(Interruption, BelongsToItsScopeAndThread) {
    std::stop_source source;
    source.request_stop();
    {
        const interruption::Scope scope(source.get_token());
        EXPECT_TRUE(interruption::requested());
    }
    EXPECT_FALSE(interruption::requested());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(interruption::sleep(5ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 5ms);
}
