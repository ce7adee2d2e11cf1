// The C library's timed waits and its monotonic clock stand in here under their own names, so that
// every call of the process comes this way, those of other libraries included.
#include "simulator/clock/turnedclock.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Nanoseconds = std::int64_t;
constexpr Nanoseconds kSecond = 1'000'000'000;

// How often the threads are looked at, and how often in a row all must be asleep: what is on its
// way through the kernel between two of them gets that much time to arrive.
constexpr Nanoseconds kLook = 300'000;
constexpr int kQuietLooks = 4;

Nanoseconds toNanoseconds(const timespec& time) {
    return Nanoseconds{time.tv_sec} * kSecond + time.tv_nsec;
}

timespec toTimespec(Nanoseconds time) {
    return {static_cast<time_t>(time / kSecond), static_cast<long>(time % kSecond)};
}

Nanoseconds realNow() {
    timespec now{};
    ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return toNanoseconds(now);
}

// The next definition of a function behind ours: the C library's, or a sanitizer's in front of it.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

struct Next {
    decltype(&::ppoll) ppoll = next<decltype(&::ppoll)>("ppoll");
    decltype(&::nanosleep) nanosleep = next<decltype(&::nanosleep)>("nanosleep");
    decltype(&::clock_nanosleep) clockNanosleep =
        next<decltype(&::clock_nanosleep)>("clock_nanosleep");
    decltype(&::pthread_cond_clockwait) condClockWait =
        next<decltype(&::pthread_cond_clockwait)>("pthread_cond_clockwait");
};

const Next& below() {
    static const Next functions;
    return functions;
}

// A timed wait under way.
struct Waiter {
    Nanoseconds end;            // on the turned clock
    int wakeup = -1;            // an eventfd, for waits that watch one
    pthread_cond_t* condition;  // for the others
};

// A terminal of the clock's own. The kernel carries the bytes of all terminals from end to end in
// the order in which they were written, by threads of its own, which a busy machine keeps waiting:
// when a byte has come through this one, so have those of the others.
class Echo {
  public:
    Echo() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        char name[64];
        if (::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
            ::ptsname_r(master_, name, sizeof name) != 0)
            std::abort();
        slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings{};
        ::tcgetattr(slave_, &settings);
        ::cfmakeraw(&settings);
        ::tcsetattr(slave_, TCSANOW, &settings);
    }
    ~Echo() {
        ::close(slave_);
        ::close(master_);
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    // There and back, twice: the first byte may have overtaken another on a second processor.
    bool comesBack() const {
        for (int i = 0; i < 2; ++i) {
            if (!carry(slave_, master_) || !carry(master_, slave_))
                return false;
        }
        return true;
    }

  private:
    static bool carry(int from, int to) {
        char byte = 'x';
        return ::write(from, &byte, 1) == 1 && ::read(to, &byte, 1) == 1;
    }

    const int master_;
    int slave_ = -1;
};

class Clock {
  public:
    Nanoseconds now() const { return realNow() + offset_.load(); }

    bool rulesThisThread() const {
        return turned_.load(std::memory_order_acquire) && ::gettid() != owner_ &&
               ::gettid() != lookout_;
    }

    std::list<Waiter>::iterator enter(const Waiter& waiter) {
        const std::lock_guard guard(lock_);
        ++changes_;
        return waiters_.insert(waiters_.end(), waiter);
    }

    void leave(std::list<Waiter>::iterator waiter) {
        const std::lock_guard guard(lock_);
        ++changes_;
        waiters_.erase(waiter);
    }

    void start(Nanoseconds grain) {
        grain_ = grain;
        owner_ = ::gettid();
        lookout_ = 0;
        stopping_ = false;
        thread_ = std::thread([this] { run(); });
        while (lookout_ == 0)
            std::this_thread::yield();
        turned_.store(true, std::memory_order_release);
    }

    // The clock stays ahead: turned back, it would run backwards.
    void stop() {
        turned_.store(false, std::memory_order_release);
        stopping_ = true;
        thread_.join();
    }

  private:
    void run() {
        lookout_ = ::gettid();
        int quiet = 0;
        std::uint64_t seen = 0;
        while (!stopping_ || hasWaiters()) {
            const timespec pause = toTimespec(kLook);
            const Nanoseconds before = realNow();
            below().nanosleep(&pause, nullptr);
            // On a busy machine what is under way takes longer as well.
            const bool late = realNow() - before > 4 * kLook;
            wakeOverdue();
            const std::uint64_t changes = changeCount();
            quiet = !late && changes == seen && othersSleep() ? quiet + 1 : 0;
            seen = changes;
            if (quiet < kQuietLooks)
                continue;
            quiet = 0;
            // What a thread has written into a terminal before it slept may not have come out yet.
            // A thread that did so while the others were looked at has begun another wait since.
            if (echo_.comesBack() && othersSleep() && changeCount() == seen)
                leap();
        }
    }

    bool hasWaiters() {
        const std::lock_guard guard(lock_);
        return !waiters_.empty();
    }

    std::uint64_t changeCount() {
        const std::lock_guard guard(lock_);
        return changes_;
    }

    void leap() {
        const std::lock_guard guard(lock_);
        if (waiters_.empty())
            return;
        const auto first =
            std::min_element(waiters_.begin(), waiters_.end(),
                             [](const Waiter& a, const Waiter& b) { return a.end < b.end; });
        Nanoseconds last = first->end;
        for (const Waiter& waiter : waiters_) {
            if (waiter.end <= first->end + grain_)
                last = std::max(last, waiter.end);
        }
        const Nanoseconds distance = last - now();
        if (distance > 0)
            offset_ += distance;
        ++changes_;
    }

    // Again and again until they have left: a thread that is about to begin its wait misses a call.
    void wakeOverdue() {
        const std::lock_guard guard(lock_);
        for (const Waiter& waiter : waiters_) {
            if (waiter.end > now())
                continue;
            if (waiter.condition != nullptr)
                ::pthread_cond_broadcast(waiter.condition);
            else
                ::eventfd_write(waiter.wakeup, 1);
        }
    }

    // Whether no thread but the owner and this one runs or could run.
    bool othersSleep() const {
        DIR* const tasks = ::opendir("/proc/self/task");
        if (tasks == nullptr)
            return false;
        bool asleep = true;
        // Nobody else reads this stream. NOLINTNEXTLINE(concurrency-mt-unsafe)
        while (const dirent* const task = ::readdir(tasks)) {
            const int id = std::atoi(task->d_name);
            if (id != 0 && id != owner_ && id != lookout_ && stateOf(id) != 'S') {
                asleep = false;
                break;
            }
        }
        ::closedir(tasks);
        return asleep;
    }

    static char stateOf(int task) {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", task);
        const int file = ::open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return 'S';  // it has ended
        char text[512];
        const ssize_t size = ::read(file, text, sizeof text - 1);
        ::close(file);
        text[std::max<ssize_t>(size, 0)] = '\0';
        const char* const behindName = std::strrchr(text, ')');
        return behindName != nullptr && behindName[1] != '\0' ? behindName[2] : 'R';
    }

    std::atomic<bool> turned_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<Nanoseconds> offset_{0};
    std::atomic<Nanoseconds> grain_{0};
    std::atomic<pid_t> owner_{0};
    std::atomic<pid_t> lookout_{0};
    std::thread thread_;
    const Echo echo_;
    std::mutex lock_;  // guards the two
    std::list<Waiter> waiters_;
    std::uint64_t changes_ = 0;
};

Clock& theClock() {
    static Clock* const clock = new Clock;  // never destroyed: threads may outlive main
    return *clock;
}

// An eventfd of the calling thread, for one wait at a time.
class Wakeup {
  public:
    Wakeup() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Wakeup() { ::close(descriptor_); }
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    // Empty for a new wait.
    int fresh() const {
        eventfd_t ignored = 0;
        ::eventfd_read(descriptor_, &ignored);
        return descriptor_;
    }

  private:
    const int descriptor_;
};

// As ppoll, until a moment of the turned clock.
int pollUntil(pollfd* waits, nfds_t count, Nanoseconds end, const sigset_t* signals) {
    thread_local const Wakeup wakeup;
    std::vector<pollfd> all(waits, waits + count);
    all.push_back({wakeup.fresh(), POLLIN, 0});
    const auto waiter = theClock().enter({end, all.back().fd, nullptr});
    const timespec left = toTimespec(std::max<Nanoseconds>(0, end - theClock().now()));
    int result = below().ppoll(all.data(), all.size(), &left, signals);
    const int error = errno;
    theClock().leave(waiter);
    if (result > 0 && all.back().revents != 0) {
        // The time is up; what came in the same moment counts.
        const timespec none{};
        result = below().ppoll(all.data(), count, &none, signals);
    } else {
        errno = error;
    }
    for (nfds_t i = 0; i < count; ++i)
        waits[i].revents = all[i].revents;
    return result;
}

int sleepUntil(Nanoseconds end) {
    while (theClock().now() < end) {
        if (pollUntil(nullptr, 0, end, nullptr) < 0)
            return EINTR;
    }
    return 0;
}

template <typename Wait>
int waitUntil(pthread_cond_t* condition, Nanoseconds end, const Wait& wait) {
    const auto waiter = theClock().enter({end, -1, condition});
    const Nanoseconds left = std::max<Nanoseconds>(0, end - theClock().now());
    const int result = wait(toTimespec(realNow() + left));
    theClock().leave(waiter);
    return result == 0 && theClock().now() >= end ? ETIMEDOUT : result;
}

}  // namespace

TurnedClock::TurnedClock(std::chrono::nanoseconds grain) {
    theClock().start(grain.count());
}

TurnedClock::~TurnedClock() {
    theClock().stop();
}

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t id, timespec* time) {
    if (id != CLOCK_MONOTONIC)
        return static_cast<int>(::syscall(SYS_clock_gettime, id, time));
    *time = toTimespec(theClock().now());
    return 0;
}

[[gnu::visibility("default")]] int ppoll(pollfd* waits, nfds_t count, const timespec* timeout,
                                         const sigset_t* signals) {
    if (timeout == nullptr || toNanoseconds(*timeout) == 0 || !theClock().rulesThisThread())
        return below().ppoll(waits, count, timeout, signals);
    return pollUntil(waits, count, theClock().now() + toNanoseconds(*timeout), signals);
}

[[gnu::visibility("default")]] int poll(pollfd* waits, nfds_t count, int timeoutMs) {
    const timespec timeout = toTimespec(Nanoseconds{timeoutMs} * 1'000'000);
    return ::ppoll(waits, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

[[gnu::visibility("default")]] int nanosleep(const timespec* duration, timespec* left) {
    if (!theClock().rulesThisThread())
        return below().nanosleep(duration, left);
    const Nanoseconds end = theClock().now() + toNanoseconds(*duration);
    const int error = sleepUntil(end);
    if (left != nullptr)
        *left = toTimespec(std::max<Nanoseconds>(0, end - theClock().now()));
    errno = error;
    return error == 0 ? 0 : -1;
}

[[gnu::visibility("default")]] int clock_nanosleep(clockid_t id, int flags,
                                                   const timespec* duration, timespec* left) {
    if ((id != CLOCK_MONOTONIC && (flags & TIMER_ABSTIME) != 0) || !theClock().rulesThisThread()) {
        if (id != CLOCK_MONOTONIC || (flags & TIMER_ABSTIME) == 0)
            return below().clockNanosleep(id, flags, duration, left);
        const Nanoseconds distance = toNanoseconds(*duration) - theClock().now();
        const timespec rest = toTimespec(std::max<Nanoseconds>(0, distance));
        return below().clockNanosleep(id, 0, &rest, nullptr);
    }
    const bool isMoment = (flags & TIMER_ABSTIME) != 0;
    return sleepUntil(toNanoseconds(*duration) + (isMoment ? 0 : theClock().now()));
}

[[gnu::visibility("default")]] int pthread_cond_clockwait(pthread_cond_t* condition,
                                                          pthread_mutex_t* mutex, clockid_t id,
                                                          const timespec* until) {
    if (id != CLOCK_MONOTONIC)
        return below().condClockWait(condition, mutex, id, until);
    const Nanoseconds end = toNanoseconds(*until);
    const auto wait = [&](const timespec& realEnd) {
        return below().condClockWait(condition, mutex, CLOCK_MONOTONIC, &realEnd);
    };
    if (!theClock().rulesThisThread())
        return wait(toTimespec(realNow() + std::max<Nanoseconds>(0, end - theClock().now())));
    return waitUntil(condition, end, wait);
}

}  // extern "C"
