// Cooperative end of a worker thread. Whoever starts a worker gives it a std::stop_token; what runs
// on the worker finds the token here, however deep in the call, and ends its waits early once a
// stop is requested.
#pragma once

#include <chrono>
#include <stop_token>

namespace interruption {

// Makes `token` the interruption of the calling thread for as long as the object lives.
class Scope {
  public:
    explicit Scope(std::stop_token token);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

  private:
    std::stop_token previous_;
};

// The calling thread's token. On a thread without a Scope it never stops.
const std::stop_token& current();

// Whether the calling thread is to end.
bool requested();

// Sleeps on the calling thread; returns false, at once, when the thread is interrupted.
bool sleep(std::chrono::milliseconds duration);

}  // namespace interruption
