#include "support/systemlimits.h"

#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <thread>

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

void runBoundByPermissions(const std::function<void()>& body) {
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct rights[2] = {};
        syscall(SYS_capget, &header, rights);
        for (const unsigned right : {unsigned{CAP_DAC_OVERRIDE}, unsigned{CAP_DAC_READ_SEARCH}}) {
            rights[0].effective &= ~(1U << right);
            rights[0].permitted &= ~(1U << right);
        }
        syscall(SYS_capset, &header, rights);
        body();
    }).join();
}
