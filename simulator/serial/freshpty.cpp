#include "simulator/serial/freshpty.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace simulator {
namespace {

// Closes it, unless somebody has taken it over.
class Master {
  public:
    explicit Master(int number) : number_(number) {
        if (number_ < 0)
            throw std::system_error(errno, std::generic_category(), "posix_openpt");
    }
    ~Master() {
        if (number_ >= 0)
            ::close(number_);
    }
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }

  private:
    int number_;
};

std::string unlockedSlaveOf(int master) {
    std::array<char, 64> path{};
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, path.data(), path.size()) != 0)
        throw std::system_error(errno, std::generic_category(), "pty");
    return path.data();
}

bool isLocked(const std::string& slavePath) {
    const std::string number = std::filesystem::path(slavePath).filename().string();
    return std::filesystem::exists("/run/lock/LCK..pts_" + number);
}

}  // namespace

FreshPty openFreshPty(int flags) {
    Master master(posix_openpt(flags));
    std::string slavePath = unlockedSlaveOf(master.get());
    // This one stays open until another has been found, which so has another number.
    if (isLocked(slavePath))
        return openFreshPty(flags);
    return {master.release(), std::move(slavePath)};
}

}  // namespace simulator
