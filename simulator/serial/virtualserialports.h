// Serial ports in the place of the machine's: the program lists, watches and opens these for as
// long as this object lives. At most one.
#pragma once

#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/serialports.h"

namespace simulator {

class VirtualSerialPorts final : public platform::SerialPortSource {
  public:
    // Throws std::system_error.
    VirtualSerialPorts();
    ~VirtualSerialPorts();
    VirtualSerialPorts(const VirtualSerialPorts&) = delete;
    VirtualSerialPorts& operator=(const VirtualSerialPorts&) = delete;

    // Any thread. The program calls the port by the last part of its path.
    void arrive(const std::filesystem::path& path, const std::string& model = "Virtual port",
                bool isUsb = true);
    void leave(const std::filesystem::path& path);

    // From now on the ports can be neither listed, for that reason, nor watched anew.
    void fail(const std::string& reason);

    std::vector<platform::SerialPortEntry> list() override;
    // One at a time.
    std::unique_ptr<platform::PortEvents> watch() override;
    std::string pathOf(std::string_view name) const override;

  private:
    class Events;

    void report(platform::PortEvent event);

    mutable std::mutex lock_;  // guards all below
    std::vector<platform::SerialPortEntry> present_;
    std::map<std::string, std::string, std::less<>> paths_;  // of those that have left as well
    std::string failure_;
    bool watched_ = false;
    std::deque<platform::PortEvent> events_;
    int pending_;  // readable while there are events
};

}  // namespace simulator
