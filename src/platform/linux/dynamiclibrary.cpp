#include "platform/dynamiclibrary.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/process.h"

namespace platform {

DynamicLibrary::~DynamicLibrary() {
    unload();
}

DynamicLibrary::DynamicLibrary(DynamicLibrary&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), error_(std::move(other.error_)) {}

DynamicLibrary& DynamicLibrary::operator=(DynamicLibrary&& other) noexcept {
    std::swap(handle_, other.handle_);
    std::swap(error_, other.error_);
    return *this;
}

bool DynamicLibrary::load(const std::string& name) {
    unload();
    const std::filesystem::path file = name + ".so";
    const std::filesystem::path home = executableDirectory();
    bool found = false;
    for (const std::filesystem::path& candidate :
         {home / file, home / "../lib/vorlanfactorytool" / file, file}) {
        handle_ = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle_ != nullptr)
            return true;
        // dlerror's text belongs to the calling thread.
        const char* reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe)
        // The first candidate that exists and cannot be loaded is the one worth telling about.
        if (found)
            continue;
        error_ = reason != nullptr ? reason : "unknown error";
        std::error_code error;
        found = std::filesystem::exists(candidate, error);
    }
    return false;
}

void DynamicLibrary::unload() {
    error_.clear();
    if (handle_ != nullptr)
        ::dlclose(std::exchange(handle_, nullptr));
}

void* DynamicLibrary::symbol(const char* name) const {
    return handle_ != nullptr ? ::dlsym(handle_, name) : nullptr;
}

}  // namespace platform
