#include "platform/singleinstance.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace platform {
namespace {

// Where the claim may lie, best place first. The session's own directory is the user's alone; the
// one for temporary files is everybody's.
std::vector<std::string> places(const std::string& name) {
    std::vector<std::string> found;
    // Nothing in the program changes the environment.
    const char* const session = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
    if (session != nullptr && fs::path(session).is_absolute())
        found.push_back(fs::path(session) / (name + ".lock"));
    std::error_code error;
    const fs::path temporary = fs::temp_directory_path(error);
    if (!error)
        found.push_back(temporary / (name + "-" + std::to_string(::geteuid()) + ".lock"));
    else
        errno = error.value();
    return found;
}

}  // namespace

SingleInstance::Claim SingleInstance::claim(const std::string& name) {
    for (const std::string& place : places(name)) {
        if (!file_.openLockFile(place))
            continue;
        const File::Lock lock = file_.lockExclusively();
        if (lock == File::Lock::kTaken)
            return Claim::kFirst;
        if (lock == File::Lock::kHeldElsewhere)
            return Claim::kAnotherRuns;
    }
    return Claim::kUnguarded;
}

}  // namespace platform
