// The proof after the burns of the USB road: every flash is compared with the package byte for
// byte, every tile with its device, and every serial number with the file on the disk.
#pragma once

#include <string>

#include "demo/burnproof.h"
#include "demo/demooperator.h"
#include "demo/report.h"
#include "demo/usbdevices.h"
#include "simulator/samplepackage.h"

namespace simulator {

// To be used while no device is burning.
class UsbCheck {
  public:
    UsbCheck(Report& report, const SamplePackage& package, const DemoOperator& worker,
             BurnProof& proof)
        : report_(report), package_(package), worker_(worker), proof_(proof) {}

    // Reports one line for each device. True if all is as it must be.
    bool check(UsbDevices& devices);

  private:
    bool checkDevice(std::size_t number, const UsbDevice& device);
    std::string troubleWithTile(const UsbDevice& device) const;
    std::string troubleWithBurned(const UsbDevice& device);
    std::string troubleInRom(const UsbDevice& device) const;
    std::string troubleInFlash(const UsbDevice& device) const;

    Report& report_;
    const SamplePackage& package_;
    const DemoOperator& worker_;
    BurnProof& proof_;
};

}  // namespace simulator
