// The list of serial ports from which burning on the serial page starts.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

struct SSerInfo {
    std::wstring devicePath;    // opens the port
    std::wstring portName;      // empty if friendlyName ends in it, in brackets
    std::wstring friendlyName;  // for display
    bool isUsb = false;
    std::wstring description;  // friendlyName without the port in brackets
};

// The ports could not be listed.
class SerialPortListError : public std::exception {
  public:
    explicit SerialPortListError(std::wstring text) : text_(std::move(text)) {}
    const char* what() const noexcept override { return "the serial ports cannot be listed"; }
    // The reason, for the trace.
    const std::wstring& text() const { return text_; }

  private:
    std::wstring text_;
};

// Replaces what is in `ports` by the ports that are present now; with `ignoreBusy` without those
// that cannot be opened, as when another program has them. User-interface thread. Throws
// SerialPortListError; the list is incomplete then.
void listSerialPorts(std::vector<SSerInfo>& ports, bool ignoreBusy);
