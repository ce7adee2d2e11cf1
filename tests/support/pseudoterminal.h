// The far end of a serial port: the master of a pty whose slave the program opens as its port.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class PseudoTerminal {
  public:
    PseudoTerminal();
    ~PseudoTerminal() { unplug(); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    const std::string& portPath() const { return path_; }
    // The short name: the path without "/dev/".
    std::wstring portName() const;

    void send(std::string_view bytes);
    // Waits, not for ever, until so many bytes have come from the port.
    std::string receive(std::size_t count);
    // The same for one byte, and all that has come with it; empty if the port has been closed.
    std::string receiveSome();
    // Whatever has come. Nothing is awaited.
    bool isQuiet() const;

    // As the port's owner has set them.
    std::uint32_t rate() const;
    std::uint32_t controlFlags() const;
    bool isClaimed() const;

    // The adapter is pulled out.
    void unplug();

  private:
    int master_ = -1;
    int slave_ = -1;  // keeps the line up between two owners of the port
    std::string path_;
};
