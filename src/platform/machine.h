// Facts about the machine.
#pragma once

#include <string>

namespace platform {

// Name and release of the operating system's kernel, as in "Linux 6.1.0"; "Unknown" if there is
// no telling.
std::string operatingSystemName();

// Whether the operating system (not just this program) is a 64-bit one.
bool is64BitOperatingSystem();

}  // namespace platform
