// The coming and going of the demo's USB devices, with all the trouble they make, as the window's
// tiles show it.
#pragma once

#include "demo/report.h"
#include "demo/tilewatch.h"
#include "demo/usbdevices.h"

namespace simulator {

// Each step is false if the tiles did not follow, which the report tells, or if a person at the
// window has ended the demo.
class UsbTraffic {
  public:
    UsbTraffic(Report& report, const TileWatch& watch, UsbDevices& devices)
        : report_(report), watch_(watch), devices_(devices) {}

    // Half of the devices are there before the operator starts, and the others come after that.
    void firstHalfComes();
    bool secondHalfComes();
    // A seventeenth finds no place.
    bool oneTooManyComes();
    bool waitForMidBurn();
    // One device leaves in mid-burn and comes back.
    bool oneLeavesAndReturns();
    bool waitForTheEnd();
    // The failed devices leave, which frees their numbers, and the one that found no place is
    // plugged in where one of them was.
    bool lateOneTakesAPlace();

  private:
    void noteOutcomes();

    Report& report_;
    const TileWatch& watch_;
    UsbDevices& devices_;
};

}  // namespace simulator
