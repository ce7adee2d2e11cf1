// Facts about the running process, for log lines and for finding what lies beside the program.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

std::uint32_t processId();

// The system's number of the calling thread.
std::uint32_t threadId();

// From now on a write to a pipe whose reader has gone fails, as on a full disk, and no longer ends
// the process. Programs that are started later are not affected.
void surviveClosedPipes();

// Directory of the program's executable, with no trailing separator; empty if it is unknown.
std::string executableDirectory();

}  // namespace platform
