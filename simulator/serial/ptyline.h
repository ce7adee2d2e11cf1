// The device's end of a serial line: the master of a pty, whose slave the host opens as its port
// through a link with a stable name. The only file here that knows the operating system's ttys.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

#include "simulator/bytes.h"

namespace simulator {

// Used by one thread, but for wake().
class PtyLine {
  public:
    // Makes the link, in the place of whatever has its name. Throws std::system_error.
    explicit PtyLine(std::filesystem::path link);
    ~PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;

    // The link goes, and whoever has the port open sees it hang up. Nothing else may follow but
    // wake().
    void hangUp();

    // From any thread: ends the running wait, or the next.
    void wake();
    // Until that time, a second at most, a wake, a host that opens or closes the port or, if asked
    // for, input.
    void wait(std::chrono::steady_clock::time_point until, bool forInput);

    // Whether the port, used by nobody before, has been opened since the last call. What the device
    // said and nobody read is lost when the port is closed.
    bool opened();
    bool inUse() const { return users_ > 0; }

    // Takes what has come; 0 if nothing has.
    std::size_t read(std::span<std::uint8_t> buffer);
    // What finds no room is lost, as on a line without flow control.
    void write(Bytes bytes);

    // What the host has set: its rate, 0 if its two directions differ; and whether bytes pass as
    // they are, with one stop bit.
    std::uint32_t rate() const;
    bool passesBytes() const;

  private:
    void close();

    const std::filesystem::path link_;
    int master_ = -1;
    int slave_ = -1;  // keeps the line up while no host has it open
    int wake_ = -1;
    int watch_ = -1;
    int users_ = 0;
};

// Lets the calling thread's waits end within microseconds of their time.
void sharpenTimers();

}  // namespace simulator
