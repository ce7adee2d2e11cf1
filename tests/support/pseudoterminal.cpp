#include "support/pseudoterminal.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "simulator/serial/freshpty.h"

namespace {

constexpr int kLimitMs = 60000;

termios2 settingsOf(int master) {
    termios2 settings{};
    EXPECT_EQ(::ioctl(master, TCGETS2, &settings), 0);
    return settings;
}

}  // namespace

PseudoTerminal::PseudoTerminal() {
    simulator::FreshPty pty = simulator::openFreshPty(O_RDWR | O_NOCTTY | O_CLOEXEC);
    master_ = pty.master;
    path_ = std::move(pty.slavePath);
    slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(slave_, 0);
}

std::wstring PseudoTerminal::portName() const {
    return {path_.begin() + static_cast<std::ptrdiff_t>(std::string_view("/dev/").size()),
            path_.end()};
}

void PseudoTerminal::send(std::string_view bytes) {
    EXPECT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string PseudoTerminal::receive(std::size_t count) {
    std::string received;
    while (received.size() < count) {
        const std::string more = receiveSome();
        if (more.empty()) {
            ADD_FAILURE() << "only " << received.size() << " of " << count << " bytes came";
            break;
        }
        received += more;
    }
    return received;
}

std::string PseudoTerminal::receiveSome() {
    std::array<char, 4096> buffer;
    pollfd wait{master_, POLLIN, 0};
    if (::poll(&wait, 1, kLimitMs) != 1)
        return {};
    const ssize_t count = ::read(master_, buffer.data(), buffer.size());
    return {buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

bool PseudoTerminal::isQuiet() const {
    pollfd wait{master_, POLLIN, 0};
    return ::poll(&wait, 1, 0) == 0;
}

std::uint32_t PseudoTerminal::rate() const {
    return settingsOf(master_).c_ospeed;
}

std::uint32_t PseudoTerminal::controlFlags() const {
    return settingsOf(master_).c_cflag;
}

bool PseudoTerminal::isClaimed() const {
    int claimed = 0;
    EXPECT_EQ(::ioctl(slave_, TIOCGEXCL, &claimed), 0);
    return claimed != 0;
}

void PseudoTerminal::unplug() {
    if (slave_ >= 0)
        ::close(slave_);
    if (master_ >= 0)
        ::close(master_);
    slave_ = -1;
    master_ = -1;
}
