#include "simulator/serial/ptyline.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "simulator/serial/freshpty.h"

namespace simulator {
namespace {

using std::chrono::nanoseconds;

int checked(int result, const char* what) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

void closeFile(int& file) {
    if (file >= 0)
        ::close(file);
    file = -1;
}

termios2 settings(int line) {
    termios2 result{};
    ioctl(line, TCGETS2, &result);  // of the slave, asked at the master
    return result;
}

}  // namespace

PtyLine::PtyLine(std::filesystem::path link) : link_(std::move(link)) {
    try {
        const FreshPty pty = openFreshPty(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        master_ = pty.master;
        const std::string& slave = pty.slavePath;
        slave_ = checked(::open(slave.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open");
        wake_ = checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
        watch_ = checked(inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify_init1");
        checked(inotify_add_watch(watch_, slave.c_str(), IN_OPEN | IN_CLOSE), "inotify_add_watch");

        // Renamed into place, so that the name is never missing when a device comes back.
        std::filesystem::create_directories(link_.parent_path());
        const std::filesystem::path fresh = link_.string() + ".new";
        std::filesystem::remove(fresh);
        std::filesystem::create_symlink(slave, fresh);
        std::filesystem::rename(fresh, link_);
    } catch (...) {
        close();
        throw;
    }
}

PtyLine::~PtyLine() {
    hangUp();
    close();
}

void PtyLine::hangUp() {
    if (master_ < 0)
        return;
    std::error_code ignored;
    std::filesystem::remove(link_, ignored);
    closeFile(master_);
    closeFile(slave_);
}

void PtyLine::close() {
    closeFile(master_);
    closeFile(slave_);
    closeFile(watch_);
    closeFile(wake_);
}

void PtyLine::wake() {
    eventfd_write(wake_, 1);
}

void PtyLine::wait(std::chrono::steady_clock::time_point until, bool forInput) {
    constexpr nanoseconds kLongest = std::chrono::seconds(1);
    const auto now = std::chrono::steady_clock::now();
    const nanoseconds time =
        until <= now ? nanoseconds(0) : std::min<nanoseconds>(until - now, kLongest);
    const timespec limit{time.count() / std::nano::den, time.count() % std::nano::den};
    std::array<pollfd, 3> files = {{{wake_, POLLIN, 0}, {watch_, POLLIN, 0}, {master_, POLLIN, 0}}};
    ppoll(files.data(), forInput ? 3 : 2, &limit, nullptr);
    eventfd_t count = 0;
    if (files[0].revents != 0)
        eventfd_read(wake_, &count);
}

bool PtyLine::opened() {
    alignas(inotify_event) std::array<char, 4096> events;
    bool fresh = false;
    bool closed = false;
    for (;;) {
        const ssize_t size = ::read(watch_, events.data(), events.size());
        if (size <= 0)
            break;
        // Events of a watched file have no names, so all have one size.
        for (std::size_t at = 0; at + sizeof(inotify_event) <= static_cast<std::size_t>(size);
             at += sizeof(inotify_event)) {
            const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
            if ((event->mask & IN_OPEN) != 0) {
                fresh = fresh || users_ == 0;
                ++users_;
            } else if ((event->mask & IN_CLOSE) != 0) {
                --users_;
                closed = true;
            }
        }
    }
    if (closed && users_ == 0) {
        // A real port forgets its last user; a pty does so only when its master goes.
        ioctl(slave_, TIOCNXCL);
        ioctl(slave_, TCFLSH, TCIFLUSH);
    }
    return fresh;
}

std::size_t PtyLine::read(std::span<std::uint8_t> buffer) {
    const ssize_t size = ::read(master_, buffer.data(), buffer.size());
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

void PtyLine::write(Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t size = ::write(master_, bytes.data(), bytes.size());
        if (size <= 0)
            return;
        bytes = bytes.subspan(static_cast<std::size_t>(size));
    }
}

std::uint32_t PtyLine::rate() const {
    const termios2 set = settings(master_);
    return set.c_ispeed == set.c_ospeed ? set.c_ospeed : 0;
}

bool PtyLine::passesBytes() const {
    const termios2 set = settings(master_);
    constexpr tcflag_t kChangedInput =
        ISTRIP | INLCR | IGNCR | ICRNL | IUCLC | IXON | IXOFF | PARMRK | INPCK;
    return (set.c_iflag & kChangedInput) == 0 && (set.c_oflag & OPOST) == 0 &&
           (set.c_lflag & (ISIG | ICANON | ECHO | ECHONL)) == 0 &&
           (set.c_cflag & (CSTOPB | PARENB | CRTSCTS)) == 0 && (set.c_cflag & CSIZE) == CS8;
}

void sharpenTimers() {
    prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
}

}  // namespace simulator
