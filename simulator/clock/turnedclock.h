// A clock for tests whose waits would take seconds. While it lives, time in this process leaps over
// every stretch in which nobody has anything to do: when all threads sleep, the clock is turned to
// the moment at which the first of their waits ends. The code under test cannot tell: it waits and
// reads the clock as ever, and what happens in between takes its real time.
#pragma once

#include <chrono>

// One at a time, made and destroyed on the test's own thread, while no other thread is inside a
// timed wait that began before. That thread looks on: its own waits pass in real time, and the
// clock does not stop for them. Nothing outside the process is hurried: waits for a child process
// or a device of the machine are no use here.
class TurnedClock {
  public:
    // Waits that would end within `grain` behind the first one end with it, so that many threads
    // with waits of their own need fewer leaps. Each wait may then take so much longer.
    explicit TurnedClock(std::chrono::nanoseconds grain = {});
    ~TurnedClock();
    TurnedClock(const TurnedClock&) = delete;
    TurnedClock& operator=(const TurnedClock&) = delete;
};
