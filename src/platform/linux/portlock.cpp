#include "portlock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace platform {
namespace {

constexpr const char* kLockDirectory = "/run/lock";

// As the terminal programs name it: by the port itself, whatever link leads there.
std::string lockFileOf(const std::string& port) {
    std::error_code error;
    const fs::path real = fs::canonical(port, error);
    if (error)
        return {};
    std::string name = real.lexically_relative("/dev").string();
    for (char& c : name)
        c = c == '/' ? '_' : c;
    return std::string(kLockDirectory) + "/LCK.." + name;
}

std::string describe(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return (name.empty() ? "process" : name) + " (" + std::to_string(process) + ")";
}

bool lives(pid_t process) {
    return ::kill(process, 0) == 0 || errno == EPERM;
}

// The process in a lock file, which is text; 0 if there is none.
pid_t readLock(const std::string& file) {
    std::ifstream in(file);
    long process = 0;
    in >> process;
    return process > 0 ? static_cast<pid_t>(process) : 0;
}

// Writes the lock under a name of its own first: it appears with its content or not at all.
bool makeLock(const std::string& file) {
    static std::atomic<unsigned> count{0};
    const std::string own = file + "." + std::to_string(::getpid()) + "." + std::to_string(++count);
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(::getpid()));
    const int descriptor =
        ::open(own.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (descriptor < 0)
        return false;
    const bool written = ::write(descriptor, text, static_cast<std::size_t>(length)) == length;
    ::close(descriptor);
    const bool made = written && ::link(own.c_str(), file.c_str()) == 0;
    const int error = errno;
    ::unlink(own.c_str());
    errno = error;
    return made;
}

// Whether the process has the terminal open. What belongs to others cannot be looked at.
bool hasOpen(const fs::path& process, dev_t terminal) {
    std::error_code error;
    for (fs::directory_iterator it(process / "fd", error), end; !error && it != end;
         it.increment(error)) {
        struct stat info {};
        if (::stat(it->path().c_str(), &info) == 0 && S_ISCHR(info.st_mode) &&
            info.st_rdev == terminal)
            return true;
    }
    return false;
}

}  // namespace

std::optional<PortLock> PortLock::take(const std::string& port, std::string& holder) {
    const std::string file = lockFileOf(port);
    if (file.empty())
        return PortLock(std::string());
    // The second time the way is free of a lock whose process has gone.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (makeLock(file))
            return PortLock(file);
        if (errno != EEXIST)
            return PortLock(std::string());
        const pid_t process = readLock(file);
        if (process != 0 && lives(process)) {
            holder = describe(process);
            return std::nullopt;
        }
        ::unlink(file.c_str());
    }
    return PortLock(std::string());
}

PortLock::~PortLock() {
    if (!file_.empty())
        ::unlink(file_.c_str());
}

std::string otherUserOf(int terminal) {
    struct stat info {};
    if (::fstat(terminal, &info) != 0)
        return {};
    std::error_code error;
    for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
        const pid_t process = static_cast<pid_t>(std::atol(it->path().filename().c_str()));
        if (process > 0 && process != ::getpid() && hasOpen(it->path(), info.st_rdev))
            return describe(process);
    }
    return {};
}

}  // namespace platform
