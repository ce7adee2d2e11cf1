#include "vorlan/uart/serialport.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/trace.h"

#define LOG_TAG "SerialPort"

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kOpenReadConstant{1000};
constexpr milliseconds kWriteConstant{1000};

// The least silence that tells the end of an answer; slow lines need more.
milliseconds gapAt(std::uint32_t baudrate) {
    assert(baudrate != 0);
    return milliseconds(10) * std::max(10000 / baudrate, 1U);
}

platform::SerialTimeouts timeoutsAt(std::uint32_t baudrate, milliseconds readConstant) {
    return {.readGap = gapAt(baudrate),
            .readConstant = readConstant,
            .writePerByte = gapAt(baudrate),
            .writeConstant = kWriteConstant};
}

bool isOpen(const SerialPort& port) {
    if (port != nullptr)
        return true;
    errno = EBADF;
    return false;
}

bool report(bool done, const char* call) {
    if (!done)
        serial_report_error(call);
    return done;
}

bool setTimeouts(const SerialPort& port, const platform::SerialTimeouts& timeouts) {
    return report(isOpen(port) && port->setTimeouts(timeouts), "SetCommTimeouts");
}

int endRead(int count, std::uint8_t* buffer) {
    report(count >= 0, "ReadFile");
    buffer[std::max(count, 0)] = 0;
    return count;
}

}  // namespace

SerialPort serial_open(const std::string& path, std::uint32_t baudrate, std::uint32_t stopBits,
                       std::uint32_t parity) {
    SerialPort port = platform::openSerialDevice(path, interruption::current());
    if (!report(port != nullptr, "CreateFile")) {
        const std::string holder = platform::serialPortHolder();
        if (!holder.empty())
            TRACE("%s is in use by %s\n", path.c_str(), holder.c_str());
        return nullptr;
    }
    // No share for each byte yet: only serial_set_timeouts makes silent reads longer, for good.
    const platform::SerialTimeouts timeouts = timeoutsAt(baudrate, kOpenReadConstant);
    if (serial_set_params(port, baudrate, stopBits, parity) == 0 || !setTimeouts(port, timeouts))
        return nullptr;
    return port;
}

int serial_set_params(const SerialPort& port, std::uint32_t baudrate, std::uint32_t stopBits,
                      std::uint32_t parity) {
    if (!report(isOpen(port) && port->fetchSettings(), "GetCommState"))
        return 0;
    if (report(port->setLine({baudrate, stopBits, parity}), "SetCommState"))
        return 1;
    LOG_E("%s does not take the line's settings: asked for %u bit/s, its driver gives %u",
          port->path().c_str(), baudrate, port->offeredRate());
    return 0;
}

int serial_set_timeouts(const SerialPort& port, std::uint32_t baudrate,
                        std::uint32_t readConstantMs) {
    platform::SerialTimeouts timeouts = timeoutsAt(baudrate, milliseconds(readConstantMs));
    timeouts.readPerByte = gapAt(baudrate);
    return setTimeouts(port, timeouts) ? 1 : 0;
}

int serial_read(const SerialPort& port, std::uint8_t* buffer, int wanted) {
    return endRead(isOpen(port) ? port->read(buffer, wanted) : -1, buffer);
}

int serial_read_until(const SerialPort& port, std::uint8_t* buffer, int wanted,
                      const platform::SerialDevice::IsWhole& isWhole) {
    return endRead(isOpen(port) ? port->readUntil(buffer, wanted, isWhole) : -1, buffer);
}

void serial_finish_read(const SerialPort& port) {
    if (port != nullptr)
        port->finishRead();
}

int serial_write(const SerialPort& port, const std::uint8_t* bytes, int size) {
    const int count = isOpen(port) ? port->write(bytes, size) : -1;
    report(count >= 0, "WriteFile");
    return count;
}

void serial_close(SerialPort& port) {
    port.reset();
}

void serial_report_error(const char* call) {
    const int code = errno;
    TRACE("%s failed with error %d:\n%s\n", call, code,
          std::generic_category().message(code).c_str());
}
