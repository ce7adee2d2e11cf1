// The USB road of the demo: an operator burns sixteen virtual devices and a seventeenth, some of
// them with trouble on the way, and every byte is checked after.
#pragma once

#include <string>

#include "demo/burnproof.h"
#include "demo/demooperator.h"
#include "demo/report.h"
#include "demo/tilewatch.h"
#include "demo/usbdevices.h"
#include "demo/usbtraffic.h"
#include "simulator/samplepackage.h"

namespace simulator {

// Each of the two ways to play is true if all went as it must; the report tells what did not.
class UsbDemo {
  public:
    UsbDemo(Report& report, DemoOperator& worker, const TileWatch& watch, UsbDevices& devices,
            const SamplePackage& package, BurnProof& proof)
        : report_(report),
          operator_(worker),
          devices_(devices),
          package_(package),
          proof_(proof),
          traffic_(report, watch, devices) {}

    // With all that a script can do at a window; burning is stopped in the end.
    bool playUnwatched(const std::string& packagePath, const std::string& csvPath);
    // The page goes on burning.
    bool playForOnlooker(const std::string& packagePath, const std::string& csvPath);

  private:
    bool check();

    Report& report_;
    DemoOperator& operator_;
    UsbDevices& devices_;
    const SamplePackage& package_;
    BurnProof& proof_;
    UsbTraffic traffic_;
};

}  // namespace simulator
