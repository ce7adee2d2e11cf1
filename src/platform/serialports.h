// Where serial ports come from: which are present, which come and go, by which path each is opened.
// Tests and the demo put ports of their own in the place of the machine's.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/portevents.h"

namespace platform {

struct SerialPortEntry {
    std::string name;   // as in "ttyUSB0"
    std::string model;  // what the hardware or else its driver is called; may be empty
    bool isUsb;
};

// what() is the text for the trace.
class SerialPortsError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SerialPortSource {
  public:
    // The ports that are present; user-interface thread. Throws SerialPortsError.
    virtual std::vector<SerialPortEntry> list() = 0;

    // Null if there are no events to be had; user-interface thread.
    virtual std::unique_ptr<PortEvents> watch() = 0;

    // The path that opens the port of that name, present or not. Any thread.
    virtual std::string pathOf(std::string_view name) const = 0;

  protected:
    ~SerialPortSource() = default;
};

// The one in force: the machine's own ports, unless substituted. Those are the ports with hardware
// behind them, so neither virtual terminals nor pseudo terminals nor places for a UART that is not
// there.
SerialPortSource& serialPorts();

// Null goes back to the machine's ports. Not while a port is open or watched; the substitute must
// outlive its use.
void substituteSerialPorts(SerialPortSource* substitute);

}  // namespace platform
