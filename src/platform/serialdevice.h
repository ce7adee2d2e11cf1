// A serial port that is open: raw bytes, time-limited reads and writes, a line that can be changed
// while it stays open. The UART engine's port layer works on it; anything else that keeps the rules
// of its time-outs can stand in its place.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>

namespace platform {

// What can be set on the line beside the 8 data bits.
struct SerialLine {
    std::uint32_t baudrate;  // in bit/s, any rate that the port's clock can make
    std::uint32_t stopBits;  // 0: one, 2: two
    std::uint32_t parity;    // 0: none, 1: odd, 2: even
};

// How long transfers may last. All zero means not at all.
struct SerialTimeouts {
    std::chrono::milliseconds readGap{0};  // silence behind a received byte that ends a read
    std::chrono::milliseconds readPerByte{0};
    std::chrono::milliseconds readConstant{0};
    std::chrono::milliseconds writePerByte{0};
    std::chrono::milliseconds writeConstant{0};
};

// Used by one thread. What fails leaves its reason in errno. Closing restores nothing.
class SerialDevice {
  public:
    SerialDevice() = default;
    virtual ~SerialDevice() = default;
    SerialDevice(const SerialDevice&) = delete;
    SerialDevice& operator=(const SerialDevice&) = delete;

    // The path that it was opened by.
    virtual const std::string& path() const = 0;

    // Takes the line's settings from the port; setLine changes what it is told to in them and
    // writes them back, at once and without dropping a byte. A rate counts as set only if the
    // driver, asked afterwards, has it within 3 %; else the port is put back to what it had.
    virtual bool fetchSettings() = 0;
    virtual bool setLine(const SerialLine& line) = 0;

    // What the driver made of the rate of the last setLine, in bit/s, be it kept or not.
    virtual std::uint32_t offeredRate() const = 0;

    virtual bool setTimeouts(const SerialTimeouts& timeouts) = 0;

    // Returns when `wanted` bytes have come, when readGap has passed behind the last of at least
    // one, or when wanted * readPerByte + readConstant have passed. Gives the number of bytes, 0
    // for a silent line, -1 on a failure with no byte before it. A port that has been pulled out is
    // a failure. `wanted` is above 0.
    int read(std::uint8_t* buffer, int wanted) {
        return readUntil(buffer, wanted, [](const std::uint8_t*, int) { return false; });
    }

    // The same, but it may end earlier, as soon as `isWhole` says so of what has come. finishRead()
    // then goes on with it from there to its end, and drops what comes; behind any other read it
    // does nothing.
    using IsWhole = std::function<bool(const std::uint8_t* bytes, int count)>;
    virtual int readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) = 0;
    virtual void finishRead() = 0;

    // Gives the number of bytes that the port has taken in size * writePerByte + writeConstant, -1
    // on a failure. `size` is above 0.
    virtual int write(const std::uint8_t* bytes, int size) = 0;
};

// Opens the port for this owner alone; null with the reason in errno if that fails. A port that
// another process has open, as far as this user may see, or holds a lock file for, is in use:
// EBUSY, and serialPortHolder() tells by whom. Once `interruption` is requested, every transfer
// under way ends, each later one fails, and closing drops what the device has not taken yet.
std::unique_ptr<SerialDevice> openSerialDevice(const std::string& path,
                                               std::stop_token interruption);

// Who kept the calling thread's last openSerialDevice from opening its port, as in "minicom
// (4711)"; empty if nobody did or nobody knows.
std::string serialPortHolder();

}  // namespace platform
