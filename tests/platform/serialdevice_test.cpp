#include "platform/serialdevice.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <numeric>
#include <thread>
#include <vector>

#include "simulator/clock/turnedclock.h"
#include "support/childprocess.h"
#include "support/helpers.h"
#include "support/pseudoterminal.h"
#include "support/temporarydirectory.h"

using namespace std::chrono_literals;
using platform::SerialDevice;
using platform::SerialTimeouts;

namespace {

constexpr auto kLong = 60000ms;  // no test waits so long

std::uint32_t fastestRate = UINT32_MAX;  // that the driver takes

}  // namespace

// The linker leads the program's calls here.
extern "C" {
int __real_ioctl(int descriptor, unsigned long request, void* argument);

int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
    if (request == TCSETS2) {
        auto settings = *static_cast<termios2*>(argument);
        settings.c_ospeed = std::min(settings.c_ospeed, fastestRate);
        settings.c_ispeed = std::min(settings.c_ispeed, fastestRate);
        return __real_ioctl(descriptor, request, &settings);
    }
    return __real_ioctl(descriptor, request, argument);
}
}

namespace {

class SerialDeviceTest : public testing::Test {
  protected:
    SerialDeviceTest() { open(); }

    void open() {
        port_ = platform::openSerialDevice(terminal_.portPath(), stop_.get_token());
        ASSERT_NE(port_, nullptr);
        ASSERT_TRUE(port_->fetchSettings());
        ASSERT_TRUE(port_->setLine({115200, 0, 0}));
    }

    // Reads and tells how long that has taken.
    std::pair<int, std::chrono::nanoseconds> timedRead(const SerialTimeouts& timeouts, int wanted) {
        EXPECT_TRUE(port_->setTimeouts(timeouts));
        const auto start = std::chrono::steady_clock::now();
        const int count = port_->read(buffer_, wanted);
        return {count, std::chrono::steady_clock::now() - start};
    }

    PseudoTerminal terminal_;
    std::stop_source stop_;
    std::unique_ptr<SerialDevice> port_;
    std::uint8_t buffer_[64] = {};
};

}  // namespace

TEST_F(SerialDeviceTest, AReadEndsByNumberOrGapOrTotal) {
    terminal_.send(std::string(70, 'x'));
    const auto [full, fullTime] = timedRead({.readGap = kLong, .readConstant = kLong}, 64);
    EXPECT_EQ(full, 64);
    EXPECT_LT(fullTime, kLong);

    const auto [rest, gapTime] = timedRead({.readGap = 30ms, .readConstant = kLong}, 64);
    EXPECT_EQ(rest, 6);
    EXPECT_GE(gapTime, 30ms);
    EXPECT_LT(gapTime, kLong);

    // The gap counts behind a byte only: a late first byte is awaited.
    std::thread late([this] {
        std::this_thread::sleep_for(60ms);
        terminal_.send("late");
    });
    EXPECT_EQ(timedRead({.readGap = 30ms, .readConstant = kLong}, 64).first, 4);
    late.join();

    // And it begins anew behind each byte.
    {
        const TurnedClock clock;
        std::thread slow([this] {
            for (int i = 0; i < 10; ++i) {
                std::this_thread::sleep_for(4s);
                terminal_.send("x");
            }
        });
        std::thread([this] {
            EXPECT_EQ(timedRead({.readGap = 30s, .readConstant = kLong}, 10).first, 10);
        }).join();
        slow.join();
    }

    terminal_.send("abc");
    const auto [some, totalTime] = timedRead({.readGap = kLong, .readConstant = 40ms}, 64);
    EXPECT_EQ(some, 3);
    EXPECT_GE(totalTime, 40ms);

    const auto [none, silentTime] =
        timedRead({.readGap = 1ms, .readPerByte = 1ms, .readConstant = 20ms}, 64);
    EXPECT_EQ(none, 0);
    EXPECT_GE(silentTime, 84ms);
    EXPECT_LT(silentTime, kLong);
}

TEST_F(SerialDeviceTest, AReadThatEndsEarlyIsFinishedAsIfItHadNot) {
    const auto holdsB = [](const std::uint8_t* bytes, int count) {
        return std::count(bytes, bytes + count, 'b') != 0;
    };
    ASSERT_TRUE(port_->setTimeouts({.readGap = 30ms, .readConstant = kLong}));
    port_->finishRead();  // there was none
    terminal_.send("ab");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(port_->readUntil(buffer_, 64, holdsB), 2);
    // Only what the read had room for belongs to it, and that ends it.
    terminal_.send(std::string(62, 'x') + "next");
    port_->finishRead();
    EXPECT_EQ(port_->readUntil(buffer_, 4, holdsB), 4);
    EXPECT_EQ(std::string(buffer_, buffer_ + 4), "next");
    port_->finishRead();  // that one has not ended early

    terminal_.send("ab");
    EXPECT_EQ(port_->readUntil(buffer_, 64, holdsB), 2);
    terminal_.send("x");
    port_->finishRead();  // with the silence behind the last byte
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kLong);
    {
        const TurnedClock clock;
        std::thread slow([this] {
            for (int i = 0; i < 3; ++i) {
                std::this_thread::sleep_for(20s);
                terminal_.send("x");
            }
        });
        std::thread([&] {
            ASSERT_TRUE(port_->setTimeouts({.readGap = 30s, .readConstant = 5 * kLong}));
            EXPECT_EQ(port_->readUntil(buffer_, 3, [](auto...) { return true; }), 1);
            port_->finishRead();
            EXPECT_EQ(port_->read(buffer_, 1), 0);
        }).join();
        slow.join();
    }

    // The next read takes the place of the rest.
    terminal_.send("ab");
    EXPECT_EQ(port_->readUntil(buffer_, 64, holdsB), 2);
    terminal_.send("c");
    EXPECT_EQ(port_->read(buffer_, 1), 1);
    terminal_.send("d");
    port_->finishRead();
    EXPECT_EQ(port_->read(buffer_, 1), 1);
    EXPECT_EQ(buffer_[0], 'd');
}

TEST_F(SerialDeviceTest, AWriteGivesUpWithWhatThePortHasTaken) {
    const std::vector<std::uint8_t> bytes(4 << 20, 0x55);
    const int size = static_cast<int>(bytes.size());
    ASSERT_TRUE(port_->setTimeouts({.writeConstant = 50ms}));
    const auto start = std::chrono::steady_clock::now();
    int written = port_->write(bytes.data(), size);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    ASSERT_GT(written, 0);
    ASSERT_LT(written, size);
    // Each byte adds its share.
    ASSERT_TRUE(port_->setTimeouts({.writePerByte = 1ms, .writeConstant = 20ms}));
    const auto again = std::chrono::steady_clock::now();
    const int more = port_->write(bytes.data(), 100);
    EXPECT_LT(more, 100);
    EXPECT_GE(std::chrono::steady_clock::now() - again, 120ms);
    written += more;
    EXPECT_EQ(terminal_.receive(static_cast<std::size_t>(written)).size(),
              static_cast<std::size_t>(written));

    // With somebody who reads, all of it goes out, a part at a time.
    ASSERT_TRUE(port_->setTimeouts({.writeConstant = kLong}));
    std::thread reader([&] { terminal_.receive(bytes.size()); });
    EXPECT_EQ(port_->write(bytes.data(), size), size);
    reader.join();
}

TEST_F(SerialDeviceTest, EveryByteAndEveryRatePassesUnchanged) {
    std::string all(256, '\0');
    std::iota(all.begin(), all.end(), '\0');
    ASSERT_TRUE(
        port_->setTimeouts({.readGap = kLong, .readConstant = kLong, .writeConstant = kLong}));
    for (const std::uint32_t rate : {115200U, 1024000U, 1536000U, 3000000U}) {
        ASSERT_TRUE(port_->fetchSettings());
        ASSERT_TRUE(port_->setLine({rate, 0, 0}));
        EXPECT_EQ(terminal_.rate(), rate);
        EXPECT_EQ(port_->write(reinterpret_cast<const std::uint8_t*>(all.data()), 256), 256);
        EXPECT_EQ(terminal_.receive(256), all);
        terminal_.send(all);
        for (int i = 0; i < 256; i += 64) {
            ASSERT_EQ(port_->read(buffer_, 64), 64);
            EXPECT_EQ(std::string(buffer_, buffer_ + 64),
                      all.substr(static_cast<std::size_t>(i), 64));
        }
        EXPECT_TRUE(terminal_.isQuiet()) << "the port echoes";
    }
}

// A plain 16550 asked for 3000000 stays at what it can, and reports success.
TEST_F(SerialDeviceTest, ARateThatTheDriverDoesNotTakeIsRefusedAndTheOldOneStays) {
    fastestRate = 1000000;
    ASSERT_TRUE(port_->fetchSettings());
    EXPECT_FALSE(port_->setLine({3000000, 0, 0}));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(port_->offeredRate(), 1000000U);
    EXPECT_EQ(terminal_.rate(), 115200U);
    // What the port's clock makes of a rate may be a little off.
    EXPECT_TRUE(port_->setLine({1030000, 0, 0}));
    EXPECT_FALSE(port_->setLine({1032000, 0, 0}));
    EXPECT_EQ(terminal_.rate(), 1000000U);
    fastestRate = UINT32_MAX;
    EXPECT_TRUE(port_->setLine({3000000, 0, 0}));
    EXPECT_EQ(terminal_.rate(), 3000000U);
}

// A terminal program that asks nobody has the port open.
TEST_F(SerialDeviceTest, APortThatAnotherProcessHasOpenIsInUse) {
    port_.reset();
    const std::string path = terminal_.portPath();
    ChildProcess other([&] {
        if (::open(path.c_str(), O_RDWR | O_NOCTTY) < 0)
            ::_exit(1);
        ::pause();
    });
    const std::string process = "(" + std::to_string(other.id()) + ")";
    ASSERT_TRUE(eventually([&] {
        port_.reset();
        port_ = platform::openSerialDevice(path, {});
        return port_ == nullptr;
    }));
    EXPECT_EQ(errno, EBUSY);
    EXPECT_NE(platform::serialPortHolder().find(process), std::string::npos);
    EXPECT_FALSE(terminal_.isClaimed());
    other.kill();
    open();
    EXPECT_EQ(platform::serialPortHolder(), "");
}

TEST_F(SerialDeviceTest, HonoursTheLockFilesOfTerminalProgramsAndMakesItsOwn) {
    std::string name = std::filesystem::canonical(terminal_.portPath()).lexically_relative("/dev");
    std::replace(name.begin(), name.end(), '/', '_');
    const std::filesystem::path lock = "/run/lock/LCK.." + name;
    if (!std::filesystem::exists(lock))
        GTEST_SKIP() << "no lock files can be made here";
    char own[16];
    std::snprintf(own, sizeof own, "%10d\n", static_cast<int>(::getpid()));
    EXPECT_EQ(contentOf(lock), own);
    port_.reset();
    EXPECT_FALSE(std::filesystem::exists(lock));

    ChildProcess other([] { ::pause(); });
    const std::string process = std::to_string(other.id());
    writeContent(lock, process + "\n");
    EXPECT_EQ(platform::openSerialDevice(terminal_.portPath(), {}), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_NE(platform::serialPortHolder().find("(" + process + ")"), std::string::npos);
    EXPECT_EQ(contentOf(lock), process + "\n");
    // Its process has gone, and so has its claim.
    other.kill();
    open();
    EXPECT_EQ(contentOf(lock), own);
}

TEST_F(SerialDeviceTest, SetsStopBitsAndParityOfWhichItKnows) {
    EXPECT_EQ(terminal_.controlFlags() & (CLOCAL | CSTOPB | PARODD), std::uint32_t{CLOCAL});
    ASSERT_TRUE(port_->setLine({115200, 2, 1}));
    EXPECT_EQ(terminal_.controlFlags() & (CSTOPB | PARODD), std::uint32_t{CSTOPB | PARODD});
    EXPECT_FALSE(port_->setLine({115200, 1, 0}));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(port_->setLine({115200, 0, 3}));
}

TEST_F(SerialDeviceTest, OpensPortsOnlyAndEachForOneOwnerAtATime) {
    EXPECT_EQ(platform::openSerialDevice(terminal_.portPath(), {}), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(terminal_.isClaimed());
    port_.reset();
    EXPECT_FALSE(terminal_.isClaimed());
    const TemporaryDirectory directory;
    EXPECT_EQ(platform::openSerialDevice(directory.write("file", ""), {}), nullptr);
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(SerialDeviceTest, APulledAdapterEndsTheReadUnderWayAndIsNoTimeOut) {
    std::thread puller([this] { terminal_.unplug(); });
    EXPECT_EQ(timedRead({.readGap = 10ms, .readConstant = kLong}, 64).first, -1);
    EXPECT_TRUE(errno == ENODEV || errno == EIO) << errno;
    puller.join();
}

TEST_F(SerialDeviceTest, AnInterruptionEndsTheTransferUnderWayAndEveryLaterOne) {
    std::thread ender([this] { stop_.request_stop(); });
    const auto [count, time] = timedRead({.readGap = 10ms, .readConstant = kLong}, 64);
    const int reason = errno;
    ender.join();
    EXPECT_EQ(count, -1);
    EXPECT_EQ(reason, ECANCELED);
    EXPECT_LT(time, kLong);
    EXPECT_EQ(port_->write(buffer_, 64), -1);
    EXPECT_EQ(errno, ECANCELED);
    EXPECT_TRUE(terminal_.isQuiet());
}
