// A fake USB bus in the place of this machine's: one host controller with a root hub and a hub of
// many ports, on which fake devices are plugged in and unplugged. At most one in a process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "simulator/kernelusb/mockusbdevice.h"

struct _UMockdevTestbed;

class MockUsbBus {
  public:
    MockUsbBus();
    ~MockUsbBus();
    MockUsbBus(const MockUsbBus&) = delete;
    MockUsbBus& operator=(const MockUsbBus&) = delete;

    // Plugs a device into a port of the root hub, as in "3", or of the hub at port 2, as in "2.4".
    // `prepare` is called before the host can see it. The device lives as long as the bus.
    MockUsbDevice& plugIn(const std::string& port,
                          const std::function<void(MockUsbDevice&)>& prepare = nullptr,
                          std::uint16_t vendorId = 0x1234, std::uint16_t productId = 0x5678,
                          int bus = 1);
    // Gives the machine one more root hub, under this number of a bus: of the one controller, or of
    // another.
    void addRootHub(int bus, const std::string& controller = "0000:00:14.0");
    // What is under way fails, and the host is told, unless its event is to be lost.
    void unplug(MockUsbDevice& device, bool loseEvent = false);

  private:
    void addHub(const std::string& path, int bus, int address);
    std::string sysfsPath(const std::string& name) const;

    _UMockdevTestbed* testbed_;
    std::string root_;
    std::map<int, std::string> rootHubs_;  // paths, by the number of the bus
    int lastAddress_ = 2;
    std::vector<std::unique_ptr<MockUsbDevice>> devices_;
};
