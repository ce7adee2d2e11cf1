#include "platform/process.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace platform {

std::uint32_t processId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t threadId() {
    return static_cast<std::uint32_t>(::gettid());
}

void surviveClosedPipes() {
    struct sigaction action {};
    // Not SIG_IGN: that would be handed on to the programs that are started.
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGPIPE, &action, nullptr);
}

std::string executableDirectory() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : executable.parent_path().string();
}

}  // namespace platform
