#include "support/systemlimits.h"

#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <utility>

namespace {

constexpr unsigned kNobody = 65534;

// Sets the soft limit and gives the one before.
std::uint64_t limit(int resource, std::uint64_t value) {
    rlimit limits{};
    getrlimit(static_cast<__rlimit_resource>(resource), &limits);
    const std::uint64_t before = std::exchange(limits.rlim_cur, value);
    setrlimit(static_cast<__rlimit_resource>(resource), &limits);
    return before;
}

// A limit below that would fail calls that open nothing.
std::uint64_t lowestFreeDescriptor() {
    const int lowest = dup(STDOUT_FILENO);
    close(lowest);
    return static_cast<std::uint64_t>(lowest);
}

}  // namespace

FullDisk::FullDisk(std::uint64_t bytes)
    : previousLimit_(limit(RLIMIT_FSIZE, bytes)), previousHandler_(std::signal(SIGXFSZ, SIG_IGN)) {}

FullDisk::~FullDisk() {
    limit(RLIMIT_FSIZE, previousLimit_);
    std::signal(SIGXFSZ, previousHandler_);
}

bool NoDescriptors::isPossible() {
#ifdef __SANITIZE_ADDRESS__
    return false;
#else
    return true;
#endif
}

NoDescriptors::NoDescriptors() : previousLimit_(limit(RLIMIT_NOFILE, lowestFreeDescriptor())) {}

NoDescriptors::~NoDescriptors() {
    limit(RLIMIT_NOFILE, previousLimit_);
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
