#include "vorlan/uart/serialport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <tuple>
#include <utility>

#include "support/pseudoterminal.h"

using namespace std::chrono_literals;

namespace {

class SerialPortTest : public testing::Test {
  protected:
    std::pair<int, std::chrono::nanoseconds> timedRead(const SerialPort& port) {
        const auto start = std::chrono::steady_clock::now();
        const int count = serial_read(port, buffer_, 64);
        return {count, std::chrono::steady_clock::now() - start};
    }

    PseudoTerminal terminal_;
    std::uint8_t buffer_[65] = {};
};

}  // namespace

TEST_F(SerialPortTest, ReadsLastAsLongAsThePhaseAllows) {
    // On a slow line a share for each wanted byte would make 21 s more.
    const SerialPort port = serial_open(terminal_.portPath(), 300, 0, 0);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(terminal_.rate(), 300U);
    buffer_[0] = 'x';
    auto [count, time] = timedRead(port);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(buffer_[0], 0);
    EXPECT_GE(time, 1000ms);
    EXPECT_LT(time, 20s);

    // From now on each wanted byte adds its share.
    EXPECT_EQ(serial_set_params(port, 3000000, 0, 0), 1);
    EXPECT_EQ(terminal_.rate(), 3000000U);
    EXPECT_EQ(serial_set_timeouts(port, 3000000, 100), 1);
    std::tie(count, time) = timedRead(port);
    EXPECT_EQ(count, 0);
    EXPECT_GE(time, 740ms);

    // The silence behind an answer ends its read, on a slow line a longer one.
    EXPECT_EQ(serial_set_timeouts(port, 2400, 60000), 1);
    buffer_[3] = 'x';
    terminal_.send("abc");
    std::tie(count, time) = timedRead(port);
    EXPECT_EQ(count, 3);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer_), "abc");
    EXPECT_GE(time, 40ms);
    EXPECT_LT(time, 60s);
}

TEST_F(SerialPortTest, TellsTheSystemsReasonOfEachFailedCall) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(serial_open("/dev/none", 115200, 0, 0), nullptr);
    EXPECT_EQ(serial_open(terminal_.portPath(), 115200, 1, 0), nullptr);
    SerialPort port = serial_open(terminal_.portPath(), 115200, 0, 0);
    EXPECT_EQ(serial_open(terminal_.portPath(), 115200, 0, 0), nullptr);
    EXPECT_EQ(serial_set_params(port, 115200, 1, 0), 0);
    terminal_.unplug();
    EXPECT_EQ(serial_read(port, buffer_, 64), -1);
    EXPECT_EQ(serial_write(port, buffer_, 64), -1);
    EXPECT_EQ(serial_set_params(port, 115200, 0, 0), 0);
    serial_close(port);
    EXPECT_EQ(serial_read(port, buffer_, 64), -1);
    EXPECT_EQ(serial_write(port, buffer_, 64), -1);
    EXPECT_EQ(serial_set_params(port, 115200, 0, 0), 0);
    EXPECT_EQ(serial_set_timeouts(port, 115200, 100), 0);
    const std::string trace = testing::internal::GetCapturedStderr();

    std::size_t position = 0;
    for (const char* line :
         {"CreateFile failed with error 2:\nNo such file or directory\n",
          "SetCommState failed with error 22:\nInvalid argument\n",
          "CreateFile failed with error 16:\nDevice or resource busy\n",
          "SetCommState failed with error 22:\n",
          "ReadFile failed with error 19:\nNo such device\n",
          "WriteFile failed with error 5:\nInput/output error\n",
          "GetCommState failed with error 5:\n",
          "ReadFile failed with error 9:\nBad file descriptor\n",
          "WriteFile failed with error 9:\n", "GetCommState failed with error 9:\n",
          "SetCommTimeouts failed with error 9:\n"}) {
        position = trace.find(line, position);
        ASSERT_NE(position, std::string::npos) << line << "is not next in\n" << trace;
        ++position;
    }
}
