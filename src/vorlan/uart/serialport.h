// The port layer below the UART packets: a port with its line, rate and time-outs, and a trace line
// with the system's text for each call that fails.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/serialdevice.h"

// Null while the port is not open; every operation then fails like a call on a closed handle. A
// port belongs to the thread that uses it.
using SerialPort = std::unique_ptr<platform::SerialDevice>;

// Opens the port at `path` for this owner alone, with 8 data bits, the rate (bit/s, not 0), stop
// bits and parity as platform::SerialLine has them, and a read total of 1000 ms. Null if it cannot
// be opened or set up. An interruption of the calling thread, which means that the program ends,
// cuts the port's transfers short; nothing else does.
SerialPort serial_open(const std::string& path, std::uint32_t baudrate, std::uint32_t stopBits,
                       std::uint32_t parity);

// Changes the line while the port stays open. 1, or 0 if the port keeps its old settings.
int serial_set_params(const SerialPort& port, std::uint32_t baudrate, std::uint32_t stopBits,
                      std::uint32_t parity);

// From now on a read may last `readConstantMs` and a share for each byte wanted. 1, or 0 if the
// port keeps its old time-outs.
int serial_set_timeouts(const SerialPort& port, std::uint32_t baudrate,
                        std::uint32_t readConstantMs);

// Bytes read, 0 for a silent line, -1 on a failure. Writes a zero behind them, for which the buffer
// has room beyond `wanted`.
int serial_read(const SerialPort& port, std::uint8_t* buffer, int wanted);

// The same, but ends as soon as `isWhole` says so; serial_finish_read then waits for the read's
// proper end and drops what comes until then. Behind any other read it does nothing.
int serial_read_until(const SerialPort& port, std::uint8_t* buffer, int wanted,
                      const platform::SerialDevice::IsWhole& isWhole);
void serial_finish_read(const SerialPort& port);

// Bytes written, fewer than `size` if time has run out, -1 on a failure.
int serial_write(const SerialPort& port, const std::uint8_t* bytes, int size);

void serial_close(SerialPort& port);

// Puts the reason of the calling thread's last failed call, from errno, into the trace.
void serial_report_error(const char* call);
