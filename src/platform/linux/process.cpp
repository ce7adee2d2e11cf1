#include "platform/process.h"

#include <unistd.h>

#include <filesystem>

namespace platform {

std::uint32_t processId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t threadId() {
    return static_cast<std::uint32_t>(::gettid());
}

std::string executableDirectory() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : executable.parent_path().string();
}

}  // namespace platform
