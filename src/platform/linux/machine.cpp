#include "platform/machine.h"

#include <sys/utsname.h>

#include <string_view>

namespace platform {

std::string operatingSystemName() {
    utsname name{};
    if (::uname(&name) != 0)
        return "Unknown";
    return std::string(name.sysname) + " " + name.release;
}

bool is64BitOperatingSystem() {
    utsname name{};
    // Every 64-bit machine that the kernel knows says so in its name, but for these.
    if (::uname(&name) != 0)
        return false;
    const std::string_view machine = name.machine;
    return machine.find("64") != std::string_view::npos || machine == "s390x" || machine == "alpha";
}

}  // namespace platform
