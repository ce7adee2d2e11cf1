#include "support/systemlimits.h"

#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace {

constexpr unsigned kNobody = 65534;

void setFileLimit(std::uint64_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
}

std::uint64_t fileLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    return limit.rlim_cur;
}

}  // namespace

FullDisk::FullDisk(std::uint64_t bytes)
    : previousLimit_(fileLimit()), previousHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    setFileLimit(bytes);
}

FullDisk::~FullDisk() {
    setFileLimit(previousLimit_);
    std::signal(SIGXFSZ, previousHandler_);
}

OrdinaryUser::OrdinaryUser()
    : previous_(static_cast<unsigned>(setfsuid(geteuid() == 0 ? kNobody : geteuid()))) {}

OrdinaryUser::~OrdinaryUser() {
    setfsuid(previous_);
}
