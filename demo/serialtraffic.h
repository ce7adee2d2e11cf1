// The coming and going of the demo's serial devices, with all the trouble they make, as the
// window's tiles show it.
#pragma once

#include "demo/serialdevices.h"
#include "demo/tilewatch.h"

namespace simulator {

// Each step is false if the tiles did not follow, which the report tells, or if a person at the
// window has ended the demo.
class SerialTraffic {
  public:
    SerialTraffic(const TileWatch& watch, SerialDevices& devices)
        : watch_(watch), devices_(devices) {}

    // Half of the devices are there before the operator starts, and the others come after that.
    void firstHalfComes();
    bool secondHalfComes();
    bool waitForMidBurn();
    // One device leaves in mid-burn and comes back.
    bool oneLeavesAndReturns();
    bool waitForTheEnd();

  private:
    const TileWatch& watch_;
    SerialDevices& devices_;
};

}  // namespace simulator
