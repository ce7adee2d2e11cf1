#include "platform/serialdevice.h"

// Rates beyond the classic ones exist in the kernel's own termios only, which cannot be mixed with
// the C library's.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "portlock.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

// Owns a descriptor. Closing it leaves errno alone.
class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        const int error = errno;
        if (number_ >= 0)
            ::close(number_);
        errno = error;
    }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;

    int get() const { return number_; }
    bool isOpen() const { return number_ >= 0; }

  private:
    int number_;
};

class LinuxSerialDevice final : public SerialDevice {
  public:
    LinuxSerialDevice(std::string path, PortLock lock, Descriptor port, Descriptor wakeup,
                      std::stop_token interruption)
        : path_(std::move(path)),
          lock_(std::move(lock)),
          port_(std::move(port)),
          wakeup_(std::move(wakeup)),
          interruption_(std::move(interruption)),
          interrupt_(interruption_, Interrupt{wakeup_.get()}) {}
    ~LinuxSerialDevice() override {
        // Closing waits half a minute for a device that takes no bytes any more. Whoever ends the
        // program does not.
        if (interruption_.stop_requested())
            ::ioctl(port_.get(), TCFLSH, TCOFLUSH);
        // The claim stays with the port as long as anybody has it open.
        ::ioctl(port_.get(), TIOCNXCL);
    }

    const std::string& path() const override { return path_; }

    std::uint32_t offeredRate() const override { return offeredRate_; }

    bool fetchSettings() override { return ::ioctl(port_.get(), TCGETS2, &settings_) == 0; }

    bool setLine(const SerialLine& line) override {
        if ((line.stopBits != 0 && line.stopBits != 2) || line.parity > 2) {
            errno = EINVAL;
            return false;
        }
        const termios2 before = settings_;
        settings_.c_iflag &= ~tcflag_t{IGNBRK | BRKINT | IGNPAR | PARMRK | INPCK | ISTRIP | INLCR |
                                       IGNCR | ICRNL | IXON | IXANY | IXOFF};
        settings_.c_oflag &= ~tcflag_t{OPOST};
        settings_.c_lflag &= ~tcflag_t{ISIG | ICANON | ECHO | ECHONL | IEXTEN};
        settings_.c_cflag &=
            ~tcflag_t{CBAUD | (CBAUD << IBSHIFT) | CSIZE | CSTOPB | PARENB | PARODD | CMSPAR};
        settings_.c_cflag |= tcflag_t{BOTHER | CS8 | CLOCAL | CREAD};
        if (line.stopBits == 2)
            settings_.c_cflag |= CSTOPB;
        if (line.parity != 0)
            settings_.c_cflag |= PARENB;
        if (line.parity == 1)
            settings_.c_cflag |= PARODD;
        settings_.c_ispeed = line.baudrate;
        settings_.c_ospeed = line.baudrate;
        // With a minimum of one byte a read of nothing means that the port is gone.
        settings_.c_cc[VMIN] = 1;
        settings_.c_cc[VTIME] = 0;
        if (::ioctl(port_.get(), TCSETS2, &settings_) == 0 && hasRate(line.baudrate))
            return true;
        const int error = errno;
        ::ioctl(port_.get(), TCSETS2, &before);
        settings_ = before;
        errno = error;
        return false;
    }

    bool setTimeouts(const SerialTimeouts& timeouts) override {
        timeouts_ = timeouts;
        return true;
    }

    int readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) override {
        rest_ = {};
        const Clock::time_point total =
            Clock::now() + timeouts_.readConstant + wanted * timeouts_.readPerByte;
        Clock::time_point end = total;
        int count = 0;
        while (count < wanted) {
            const int came = readSome(buffer + count, wanted - count, end);
            // What has come before a failure is worth its read; the next one finds the failure.
            if (came <= 0)
                return count > 0 ? count : came;
            count += came;
            end = std::min(total, Clock::now() + timeouts_.readGap);
            if (isWhole(buffer, count)) {
                rest_ = {wanted - count, end, total};
                break;
            }
        }
        return count;
    }

    void finishRead() override {
        std::array<std::uint8_t, 64> dropped;
        ReadRest rest = std::exchange(rest_, {});
        while (rest.wanted > 0) {
            const int room = std::min(rest.wanted, static_cast<int>(dropped.size()));
            const int came = readSome(dropped.data(), room, rest.end);
            if (came <= 0)
                return;
            rest.wanted -= came;
            rest.end = std::min(rest.total, Clock::now() + timeouts_.readGap);
        }
    }

    int write(const std::uint8_t* bytes, int size) override {
        const Clock::time_point end =
            Clock::now() + timeouts_.writeConstant + size * timeouts_.writePerByte;
        int count = 0;
        while (count < size && !isInterrupted()) {
            const ssize_t result =
                ::write(port_.get(), bytes + count, static_cast<std::size_t>(size - count));
            if (result > 0)
                count += static_cast<int>(result);
            if (result > 0 || (result < 0 && errno == EINTR))
                continue;
            if (result < 0 && errno != EAGAIN)
                return -1;
            const Wait wait = waitFor(POLLOUT, end);
            if (wait == Wait::kTimedOut)
                return count;
            if (wait == Wait::kFailed)
                return -1;
        }
        return count > 0 ? count : -1;
    }

  private:
    struct Interrupt {
        int wakeup;
        void operator()() const { ::eventfd_write(wakeup, 1); }
    };
    enum class Wait { kReady, kTimedOut, kFailed };
    // What is left of a read that ended early.
    struct ReadRest {
        int wanted = 0;
        Clock::time_point end;    // if nothing more comes
        Clock::time_point total;  // whatever comes
    };

    // What has come, as soon as anything has; 0 if nothing has until `end`, -1 on a failure.
    int readSome(std::uint8_t* buffer, int room, Clock::time_point end) const {
        while (!isInterrupted()) {
            const ssize_t result = ::read(port_.get(), buffer, static_cast<std::size_t>(room));
            if (result > 0)
                return static_cast<int>(result);
            if (result == 0)
                errno = ENODEV;
            if (result < 0 && errno == EINTR)
                continue;
            if (result == 0 || errno != EAGAIN)
                return -1;
            const Wait wait = waitFor(POLLIN, end);
            if (wait == Wait::kTimedOut)
                return 0;
            if (wait == Wait::kFailed)
                return -1;
        }
        return -1;
    }

    // Drivers take rates that they cannot make without a word.
    bool hasRate(std::uint32_t asked) {
        termios2 inForce{};
        if (::ioctl(port_.get(), TCGETS2, &inForce) != 0)
            return false;
        offeredRate_ = inForce.c_ospeed;
        const std::uint64_t off = std::max(asked, offeredRate_) - std::min(asked, offeredRate_);
        if (off * 100 <= std::uint64_t{asked} * 3)
            return true;
        errno = EINVAL;
        return false;
    }

    bool isInterrupted() const {
        if (!interruption_.stop_requested())
            return false;
        errno = ECANCELED;
        return true;
    }

    // One wait for the port, which an interruption ends.
    Wait waitFor(short events, Clock::time_point end) const {
        const auto left =
            std::max(std::chrono::nanoseconds(end - Clock::now()), std::chrono::nanoseconds(0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec timeout{static_cast<time_t>(seconds.count()),
                               static_cast<long>((left - seconds).count())};
        pollfd waits[] = {{port_.get(), events, 0}, {wakeup_.get(), POLLIN, 0}};
        const int result = ::ppoll(waits, std::size(waits), &timeout, nullptr);
        if (result > 0 || (result < 0 && errno == EINTR))
            return Wait::kReady;  // the caller's next try tells
        return result == 0 ? Wait::kTimedOut : Wait::kFailed;
    }

    const std::string path_;
    PortLock lock_;  // given back when the port is closed
    Descriptor port_;
    Descriptor wakeup_;
    termios2 settings_{};
    std::uint32_t offeredRate_ = 0;
    SerialTimeouts timeouts_;
    ReadRest rest_;
    std::stop_token interruption_;
    std::stop_callback<Interrupt> interrupt_;
};

thread_local std::string holder;  // see serialPortHolder()

// TIOCEXCL alone does not keep root out, and flock alone only those who ask for it.
bool claim(int port) {
    if (::flock(port, LOCK_EX | LOCK_NB) == 0)
        return ::ioctl(port, TIOCEXCL) == 0;
    if (errno == EWOULDBLOCK)
        errno = EBUSY;
    return false;
}

// Some adapters hold short answers back for 16 ms unless they are asked not to. Not all drivers
// know the question.
void askForLowLatency(int port) {
    constexpr int kLowLatency = static_cast<int>(ASYNC_LOW_LATENCY);
    serial_struct info{};
    if (::ioctl(port, TIOCGSERIAL, &info) != 0 || (info.flags & kLowLatency) != 0)
        return;
    info.flags |= kLowLatency;
    ::ioctl(port, TIOCSSERIAL, &info);
}

}  // namespace

std::unique_ptr<SerialDevice> openSerialDevice(const std::string& path,
                                               std::stop_token interruption) {
    holder.clear();
    std::optional<PortLock> lock = PortLock::take(path, holder);
    if (!lock) {
        errno = EBUSY;
        return nullptr;
    }
    // O_NONBLOCK: an open that waits for a carrier would wait for good.
    Descriptor port(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!port.isOpen() || !claim(port.get()))
        return nullptr;
    // Behind the claim, so that nobody comes in between.
    holder = otherUserOf(port.get());
    if (!holder.empty()) {
        ::ioctl(port.get(), TIOCNXCL);
        errno = EBUSY;
        return nullptr;
    }
    Descriptor wakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeup.isOpen())
        return nullptr;
    askForLowLatency(port.get());
    return std::make_unique<LinuxSerialDevice>(path, std::move(*lock), std::move(port),
                                               std::move(wakeup), std::move(interruption));
}

std::string serialPortHolder() {
    return holder;
}

}  // namespace platform
