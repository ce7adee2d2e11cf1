// The proof after the demo's burns: every flash is compared with the package byte for byte, every
// tile with its device, and every serial number with the file on the disk.
#pragma once

#include <set>
#include <string>

#include "simulator/demo/demodevices.h"
#include "simulator/demo/demooperator.h"
#include "simulator/demo/report.h"
#include "simulator/demo/samplepackage.h"

namespace simulator {

// To be used while no device is burning.
class BurnCheck {
  public:
    // `csvPath`: the file that held `numbers` free serial numbers before the burns.
    BurnCheck(Report& report, const SamplePackage& package, const DemoOperator& worker,
              std::string csvPath, unsigned numbers);

    // Reports one line for each device. True if all is as it must be.
    bool check(DemoDevices& devices);

  private:
    bool checkDevice(std::size_t number, const DemoDevice& device);
    std::string troubleWithTile(const DemoDevice& device) const;
    std::string troubleWithBurned(const DemoDevice& device);
    std::string troubleInRom(const DemoDevice& device) const;
    std::string troubleInFlash(const DemoDevice& device) const;
    bool holdsPackage(const Flash& flash, const std::string& sn) const;
    bool checkSerialNumbers();
    bool checkBurnCount();

    Report& report_;
    const SamplePackage& package_;
    const DemoOperator& worker_;
    const std::string csvPath_;
    const unsigned numbers_;
    std::set<std::string> burned_;  // the serial numbers found in flash
};

}  // namespace simulator
