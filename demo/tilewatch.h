// Waits for what the tiles of the window are to show, and notices a person who ends the demo.
#pragma once

#include <QWidget>
#include <functional>
#include <string>
#include <vector>

#include "demo/audience.h"
#include "demo/demooperator.h"
#include "demo/operator/windowoperator.h"
#include "demo/report.h"

namespace simulator {

// Each wait has a limit. It is false if the tiles did not follow, which the report tells, or if a
// person at the window has ended the demo.
class TileWatch {
  public:
    using Tiles = std::vector<TileView>;

    TileWatch(Report& report, QWidget& window, const DemoOperator& worker, Audience audience)
        : report_(report),
          window_(window),
          worker_(worker),
          watched_(audience == Audience::kOnlooker),
          eyes_(window) {}

    // Whether somebody has closed the window or stopped burning, so that nothing more will come.
    bool isEndedByOperator() const { return !window_.isVisible() || !worker_.isBurning(); }

    bool waitFor(const char* what, const std::function<bool(const Tiles&)>& condition) const;
    // For one tile only.
    bool waitForTile(const char* what, const std::string& name,
                     const std::function<bool(const TileView&)>& condition) const;

    // Half a second, so many times, for the eye of whoever watches.
    bool pause(int times = 1) const;

    Tiles tiles() const { return eyes_.tiles(); }
    // The tile of just that name; one without a name if there is none.
    static TileView find(const Tiles& tiles, const std::string& name);

    static bool isBurned(const TileView& tile);
    static bool isWriting(const TileView& tile);

  private:
    Report& report_;
    QWidget& window_;
    const DemoOperator& worker_;
    const bool watched_;
    const WindowOperator eyes_;
};

}  // namespace simulator
