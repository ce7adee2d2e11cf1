#include "platform/clock.h"

namespace platform {

std::tm localTime(std::time_t moment) {
    std::tm local{};
    ::localtime_r(&moment, &local);
    return local;
}

}  // namespace platform
