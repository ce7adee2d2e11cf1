// The wall clock as the operator reads it.
#pragma once

#include <ctime>

namespace platform {

// The moment in the machine's time zone. Any thread.
std::tm localTime(std::time_t moment);

}  // namespace platform
