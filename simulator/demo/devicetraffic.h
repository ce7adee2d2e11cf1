// The coming and going of the demo's devices, with all the trouble they make, as the window's tiles
// show it.
#pragma once

#include <QWidget>
#include <chrono>
#include <functional>
#include <vector>

#include "simulator/demo/demodevices.h"
#include "simulator/demo/demooperator.h"
#include "simulator/demo/report.h"
#include "simulator/operator/windowoperator.h"

namespace simulator {

// Each step is false if the tiles did not follow, which the report tells, or if a person at the
// window has ended the demo.
class DeviceTraffic {
  public:
    // `pause`: between two devices that are plugged in one after another.
    DeviceTraffic(Report& report, QWidget& window, const DemoOperator& worker, DemoDevices& devices,
                  std::chrono::milliseconds pause);

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

    // Whether somebody has closed the window or stopped burning, so that nothing more will come.
    bool isEndedByOperator() const { return !window_.isVisible() || !worker_.isBurning(); }

  private:
    using Tiles = std::vector<TileView>;

    bool waitFor(const char* what, const std::function<bool(const Tiles&)>& condition);
    bool waitForTile(const char* what, const DemoDevice& device,
                     const std::function<bool(const TileView&)>& condition);
    bool pause();
    void noteOutcomes();

    Report& report_;
    QWidget& window_;
    const DemoOperator& worker_;
    DemoDevices& devices_;
    const std::chrono::milliseconds pause_;
    const WindowOperator eyes_;
};

}  // namespace simulator
