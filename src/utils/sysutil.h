// What machine the program runs on.
#pragma once

#include <string>

namespace sysutil {

// Name of the operating system, "Unknown" if there is no telling.
std::wstring getOsName();

// Not 0 on a 64-bit operating system.
int is64BitOS();

}  // namespace sysutil
