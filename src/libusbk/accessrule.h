// Whether the user may open the chip's devices. The program's udev rule gives them to whoever sits
// at the machine.
#pragma once

#include <filesystem>
#include <vector>

namespace libusbk {

// Whether the rule is in force, with the directories of udev's rules in the order in which a file
// hides those of its name behind it. A rule that was hidden with an empty file or a link to
// /dev/null is not.
bool isRuleInstalled(const std::vector<std::filesystem::path>& directories);

// The same for this machine; true for a process that may open every device anyway.
bool mayOpenDevices();

}  // namespace libusbk
