// What the tests of the serial engine take for granted of the virtual device and cannot see
// themselves.
#include "simulator/serial/virtualserialdevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/pseudoterminal.h"
#include "support/temporarydirectory.h"
#include "vorlan/uart/flash_loader.h"

namespace simulator {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SerialDevice : public testing::Test {
  protected:
    VirtualSerialDevice& start(const SerialDeviceOptions& options) {
        device_ = std::make_unique<VirtualSerialDevice>(directory_.path() / "ttyUSB0", options);
        device_->plugIn();
        return *device_;
    }

    // A host that has just opened the port.
    std::unique_ptr<UartContext> open() {
        std::unique_ptr<UartContext> host = uart_context_create();
        host->port = serial_open(device_->portPath(), kRomBaudrate, 0, 0);
        return host;
    }

  private:
    TemporaryDirectory directory_;
    std::unique_ptr<VirtualSerialDevice> device_;
};

// A host speaks at once where another has just left: the device may see both at the same moment.
TEST_F(SerialDevice, HearsEachHostThatFollowsAnother) {
    const VirtualSerialDevice& device = start({.start = SerialStart::kProxy});
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(flash_loader_handshake(open().get()), kUartOk) << "host " << i;
    EXPECT_EQ(device.count(SerialFaultPoint::kProxySync), 100U);
    EXPECT_THAT(device.errors(), IsEmpty());
}

// A port that has just been closed leaves its lock file standing for a moment in which the number
// of its pty is free already.
TEST_F(SerialDevice, ComesUpOnAPtyThatNobodyHasLocked) {
    std::string lock = "/run/lock/LCK..pts_";
    {
        // As long as it lives the pty is nobody else's.
        const PseudoTerminal before;
        lock += std::filesystem::path(before.portPath()).filename();
        std::ofstream(lock) << ::getpid() << '\n';
    }
    start({.start = SerialStart::kProxy});
    EXPECT_EQ(flash_loader_handshake(open().get()), kUartOk);
    PseudoTerminal terminal;
    EXPECT_NE(serial_open(terminal.portPath(), kRomBaudrate, 0, 0), nullptr);
    std::filesystem::remove(lock);
}

// What a host must not do, done by one that knows no rules.
TEST_F(SerialDevice, RecordsWhatNoHostMayDo) {
    const auto without = [&](const std::vector<std::uint8_t>& bytes, const char* breach) {
        const VirtualSerialDevice& device = start({.start = SerialStart::kProxy});
        const std::unique_ptr<UartContext> host = open();
        host->port->write(bytes.data(), static_cast<int>(bytes.size()));
        const auto limit = Clock::now() + std::chrono::seconds(5);
        while (device.errors().empty() && Clock::now() < limit)
            std::this_thread::yield();
        EXPECT_THAT(device.errors(), ElementsAre(HasSubstr(breach)));
    };
    without({'x'}, "outside a frame");
    without({0xC0, 0, 8, 36, 0, 0, 0, 0, 0, 0xC0}, "wrong SIZE");
    without({0xC0, 0, 4, 4, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0xC0}, "before SYNC");
    without({0xC0, 1, 0xDB, 2}, "bad escape");
}

}  // namespace
}  // namespace simulator
