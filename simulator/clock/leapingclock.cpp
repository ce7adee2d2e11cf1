// The C library's sleep and clock stand in here under their own names, so that every call of the
// process comes this way.
#include "simulator/clock/leapingclock.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

std::chrono::nanoseconds passed{0};

}  // namespace

void leapingclock::reset() {
    passed = {};
}

std::chrono::milliseconds leapingclock::now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed);
}

extern "C" {

[[gnu::visibility("default")]] int nanosleep(const timespec* duration, timespec* /*left*/) {
    passed += std::chrono::seconds(duration->tv_sec) + std::chrono::nanoseconds(duration->tv_nsec);
    return 0;
}

[[gnu::visibility("default")]] int clock_gettime(clockid_t id, timespec* time) {
    if (id != CLOCK_MONOTONIC)
        return static_cast<int>(::syscall(SYS_clock_gettime, id, time));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(passed);
    *time = {static_cast<time_t>(seconds.count()), static_cast<long>((passed - seconds).count())};
    return 0;
}

// Nobody else is there to end the wait.
[[gnu::visibility("default")]] int pthread_cond_clockwait(pthread_cond_t* /*condition*/,
                                                          pthread_mutex_t* /*mutex*/,
                                                          clockid_t /*id*/, const timespec* until) {
    passed = std::max<std::chrono::nanoseconds>(
        passed, std::chrono::seconds(until->tv_sec) + std::chrono::nanoseconds(until->tv_nsec));
    return ETIMEDOUT;
}

}  // extern "C"
