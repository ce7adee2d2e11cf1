// The proof after the burns of the serial road: every flash is compared with the package byte for
// byte, every tile with its device, and every serial number with the file on the disk.
#pragma once

#include <string>

#include "demo/burnproof.h"
#include "demo/demooperator.h"
#include "demo/report.h"
#include "demo/serialdevices.h"

namespace simulator {

// To be used while no device is burning.
class SerialCheck {
  public:
    SerialCheck(Report& report, const DemoOperator& worker, BurnProof& proof)
        : report_(report), worker_(worker), proof_(proof) {}

    // Reports one line for each device. True if all is as it must be.
    bool check(SerialDevices& devices);

  private:
    bool checkDevice(const SerialDevice& device);
    std::string troubleWith(const SerialDevice& device);

    Report& report_;
    const DemoOperator& worker_;
    BurnProof& proof_;
};

}  // namespace simulator
