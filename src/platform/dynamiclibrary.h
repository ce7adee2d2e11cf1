// A shared library loaded at run time.
#pragma once

#include <string>

namespace platform {

// Owns one load of a library; the library stays loaded as long as the object lives.
class DynamicLibrary {
  public:
    DynamicLibrary() = default;
    ~DynamicLibrary();
    DynamicLibrary(DynamicLibrary&& other) noexcept;
    DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    // Loads `name` with the platform's ending for shared libraries, as in "libusbK": first from the
    // executable's directory, then from the program's library directory and the system's. False if
    // it is nowhere; error() then says why.
    bool load(const std::string& name);
    void unload();
    bool isLoaded() const { return handle_ != nullptr; }

    // Address of an exported function, or null.
    void* symbol(const char* name) const;

    const std::string& error() const { return error_; }

  private:
    void* handle_ = nullptr;
    std::string error_;
};

}  // namespace platform
