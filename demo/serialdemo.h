// The serial road of the demo: an operator burns sixteen virtual devices over as many ports, some
// of them with trouble on the way, and every byte is checked after.
#pragma once

#include <string>

#include "demo/burnproof.h"
#include "demo/demooperator.h"
#include "demo/report.h"
#include "demo/serialdevices.h"
#include "demo/serialtraffic.h"
#include "demo/tilewatch.h"

namespace simulator {

// Each of the two ways to play is true if all went as it must; the report tells what did not. The
// numbers are those that have been imported before.
class SerialDemo {
  public:
    SerialDemo(Report& report, DemoOperator& worker, const TileWatch& watch, SerialDevices& devices,
               BurnProof& proof)
        : report_(report),
          operator_(worker),
          devices_(devices),
          proof_(proof),
          traffic_(watch, devices) {}

    // With all that a script can do at a window; burning is stopped in the end.
    bool playUnwatched(const std::string& packagePath);
    // The page goes on burning.
    bool playForOnlooker(const std::string& packagePath);

  private:
    bool check();

    Report& report_;
    DemoOperator& operator_;
    SerialDevices& devices_;
    BurnProof& proof_;
    SerialTraffic traffic_;
};

}  // namespace simulator
