#include "simulator/clock/turnedclock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

std::chrono::nanoseconds realTime() {
    timespec now{};
    ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

TEST(TurnedClockTest, LeapsOverWaitsOfEveryKindAndKeepsTheirOrder) {
    const auto realStart = realTime();
    std::mutex lock;
    std::vector<int> order;
    const auto done = [&](int number) {
        const std::lock_guard guard(lock);
        order.push_back(number);
    };
    {
        const TurnedClock clock;
        const auto start = steady_clock::now();
        const auto hasPassed = [&](std::chrono::seconds time) {
            EXPECT_GE(steady_clock::now() - start, time);
            EXPECT_LT(steady_clock::now() - start, time + 30s);
        };
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        std::thread sleeper([&] {
            std::this_thread::sleep_for(300s);
            hasPassed(300s);
            done(3);
        });
        std::thread waiter([&] {
            std::mutex own;
            std::condition_variable never;
            std::unique_lock guard(own);
            EXPECT_FALSE(never.wait_for(guard, 100s, [] { return false; }));
            hasPassed(100s);
            done(1);
        });
        std::thread poller([&] {
            pollfd wait{pipe[0], POLLIN, 0};
            EXPECT_EQ(::poll(&wait, 1, 200'000), 0);
            hasPassed(200s);
            done(2);
            // What comes from another thread ends a wait at its time.
            EXPECT_EQ(::poll(&wait, 1, 1000'000), 1);
            hasPassed(400s);
            done(4);
        });
        std::thread writer([&] {
            std::this_thread::sleep_until(start + 400s);
            EXPECT_EQ(::write(pipe[1], "x", 1), 1);
        });
        for (std::thread* const thread : {&sleeper, &waiter, &poller, &writer})
            thread->join();
        ::close(pipe[0]);
        ::close(pipe[1]);
    }
    EXPECT_EQ(order, std::vector<int>({1, 2, 3, 4}));
    EXPECT_LT(realTime() - realStart, 60s);
}

TEST(TurnedClockTest, StandsStillForWhoWorks) {
    const TurnedClock clock;
    std::chrono::nanoseconds seen{};
    std::thread sleeper([] { std::this_thread::sleep_for(1000s); });
    std::thread worker([&] {
        const auto start = steady_clock::now();
        const auto end = realTime() + 50ms;
        while (realTime() < end) {
        }
        seen = steady_clock::now() - start;
    });
    worker.join();
    EXPECT_LT(seen, 900s);
    sleeper.join();
}

}  // namespace
