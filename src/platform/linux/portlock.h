// Who uses a serial port: the lock files by which terminal programs keep out of each other's way,
// and a look at what other processes have open.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace platform {

// Owns the lock file of one port, "/run/lock/LCK..ttyUSB0", which holds this process's number.
// Where no lock file can be made, for want of the directory or of rights, it owns none and does no
// harm.
class PortLock {
  public:
    // Nothing if a process that lives holds the lock; `holder` then names it. A lock file whose
    // process has gone is taken over. The port need not be there.
    static std::optional<PortLock> take(const std::string& port, std::string& holder);

    ~PortLock();
    PortLock(PortLock&& other) noexcept : file_(std::exchange(other.file_, {})) {}
    PortLock(const PortLock&) = delete;
    PortLock& operator=(const PortLock&) = delete;
    PortLock& operator=(PortLock&&) = delete;

  private:
    explicit PortLock(std::string file) : file_(std::move(file)) {}

    std::string file_;  // empty: none
};

// Another process that has the terminal of this descriptor open, as in "minicom (4711)"; empty if
// there is none that this user may see.
std::string otherUserOf(int terminal);

}  // namespace platform
