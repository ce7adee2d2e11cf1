// What both roads of the demo prove in the same way: that a burned device holds the package and a
// number of its own, and that every serial number of the file is accounted for, whichever road it
// took.
#pragma once

#include <set>
#include <string>

#include "demo/demooperator.h"
#include "demo/operator/windowoperator.h"
#include "demo/report.h"
#include "simulator/flash.h"
#include "simulator/samplepackage.h"

namespace simulator {

// To be used while no device is burning. Remembers the numbers that it has found in devices.
class BurnProof {
  public:
    // `csvPath`: the file that held `numbers` free serial numbers before the burns.
    BurnProof(const SamplePackage& package, std::string csvPath, unsigned numbers);

    // What is wrong with a device that must hold the package and a number of its own; empty if
    // nothing. To be asked once of each device.
    std::string troubleWithBurned(const Flash& flash, const TileView& outcome);
    // The same of a device that must hold the package and no number.
    std::string troubleWithNumberless(const Flash& flash) const;

    // These are about all devices so far.
    bool checkSerialNumbers(Report& report) const;
    bool checkBurnCount(Report& report, const DemoOperator& worker) const;

  private:
    const SamplePackage& package_;
    const std::string csvPath_;
    const unsigned numbers_;
    std::set<std::string> burned_;  // the serial numbers found in flash
};

}  // namespace simulator
