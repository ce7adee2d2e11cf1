#include "campaign/hardship.h"

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <system_error>

namespace campaign {

std::unique_ptr<Hardship> Hardship::fullDisk(std::uint64_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);  // a full disk sends none
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    rlimit limit = before;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    return std::make_unique<Hardship>([before] { ::setrlimit(RLIMIT_FSIZE, &before); });
}

std::unique_ptr<Hardship> Hardship::lostDirectory(const std::string& path) {
    const std::string away = path + ".away";
    std::error_code error;  // it may never have been there
    std::filesystem::rename(path, away, error);
    return std::make_unique<Hardship>([path, away] {
        std::error_code ignored;  // the program may have made a new one
        std::filesystem::rename(away, path, ignored);
        std::filesystem::remove_all(away, ignored);
    });
}

}  // namespace campaign
