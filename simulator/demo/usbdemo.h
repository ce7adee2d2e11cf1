// The USB road of the demo: sixteen virtual devices and a seventeenth are burned from a real
// package with real serial numbers, some of them with trouble on the way, and every byte is checked
// after.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "simulator/demo/consoleburner.h"
#include "simulator/demo/report.h"
#include "simulator/demo/samplepackage.h"
#include "simulator/virtualusbbus.h"
#include "simulator/virtualusbdevice.h"

namespace simulator {

class UsbDemo {
  public:
    explicit UsbDemo(Report& report) : report_(report), burner_(firmware_) {}

    // Runs in the current directory, which gets all files of the run. True if every flash and every
    // serial number is as it must be.
    bool run();

  private:
    // What is to become of a device.
    enum class Fate { kBurned, kFailsInRom, kFailsInFlash, kComesLate };

    struct Device {
        std::string port;
        std::string deviceId;
        Fate fate = Fate::kBurned;
        std::shared_ptr<VirtualUsbDevice> device;
        std::string outcome = {};  // what its tile read in the end
    };

    bool prepare();
    void makeDevices();
    bool burn();
    bool check();

    void plug(Device& device);
    void unplug(const Device& device);
    bool waitFor(const char* what,
                 const std::function<bool(const ConsoleBurner::Tiles&)>& condition);

    void noteOutcomes();
    bool checkDevice(std::size_t number, const Device& device, std::set<std::string>& burned);
    std::string troubleWithBurned(const Device& device, std::set<std::string>& burned) const;
    std::string troubleWithFailed(const Device& device) const;
    std::string serialNumberIn(const Flash& flash) const;
    bool holdsPackage(const Flash& flash, const std::string& sn) const;
    bool checkSerialNumbers(const std::set<std::string>& burned);
    bool fail(const std::string& text);

    Report& report_;
    SamplePackage package_;
    FirmwareManager firmware_;
    ConsoleBurner burner_;
    VirtualUsbBus bus_;
    std::vector<Device> devices_;
};

}  // namespace simulator
