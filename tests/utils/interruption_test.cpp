#include "utils/interruption.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

TEST(Interruption, EndsEverySleepOfItsThreadAndOfNoOther) {
    std::stop_source source;
    const auto start = std::chrono::steady_clock::now();
    std::thread worker([&] {
        const interruption::Scope scope(source.get_token());
        EXPECT_FALSE(interruption::sleep(60s));
        EXPECT_FALSE(interruption::sleep(60s));
        EXPECT_TRUE(interruption::requested());
    });
    source.request_stop();
    EXPECT_TRUE(interruption::sleep(5ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 5ms);
    worker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    {
        const interruption::Scope scope(source.get_token());
        EXPECT_TRUE(interruption::requested());
        {
            const interruption::Scope inner{std::stop_token()};
            EXPECT_FALSE(interruption::requested());
        }
        EXPECT_TRUE(interruption::requested());
    }
    EXPECT_FALSE(interruption::requested());
}
