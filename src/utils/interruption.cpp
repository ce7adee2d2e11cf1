#include "utils/interruption.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace interruption {
namespace {

thread_local std::stop_token currentToken;

}  // namespace

Scope::Scope(std::stop_token token) : previous_(std::exchange(currentToken, std::move(token))) {}

Scope::~Scope() {
    currentToken = std::move(previous_);
}

const std::stop_token& current() {
    return currentToken;
}

bool requested() {
    return currentToken.stop_requested();
}

bool sleep(std::chrono::milliseconds duration) {
    if (!currentToken.stop_possible()) {
        std::this_thread::sleep_for(duration);
        return true;
    }
    std::mutex mutex;
    std::condition_variable_any neverNotified;
    std::unique_lock lock(mutex);
    neverNotified.wait_for(lock, currentToken, duration, [] { return false; });
    return !currentToken.stop_requested();
}

}  // namespace interruption
