// The USB road of the demo, in the program's own window: an operator burns sixteen virtual devices
// and a seventeenth from a real package with real serial numbers, some of them with trouble on the
// way, and every byte is checked after.
#pragma once

#include <chrono>
#include <string>

#include "simulator/demo/demodevices.h"
#include "simulator/demo/demooperator.h"
#include "simulator/demo/devicetraffic.h"
#include "simulator/demo/report.h"
#include "simulator/demo/samplepackage.h"
#include "vorlanfactorytooldlg.h"

namespace simulator {

// Runs in the current directory, which gets all files of the run.
class UsbDemo {
  public:
    enum class Audience {
        kNobody,   // as fast as it goes, and with all that a script can do at a window
        kOnlooker  // at a pace that the eye can follow; the window is a person's afterwards
    };
    enum class Result { kPassed, kFailed, kEndedByOperator };

    UsbDemo(Report& report, Audience audience);

    Result run();

    bool isWindowOpen() const { return window_.isVisible(); }

    // Lets somebody work with the window until it is closed. When burning has been stopped, the
    // devices are unplugged and plugged in again, so that the next start burns them anew.
    void leaveToOnlooker();

  private:
    bool prepare();
    bool runUnwatched();
    bool runForOnlooker();
    bool check();

    Report& report_;
    const Audience audience_;
    const SamplePackage package_;
    const std::string packagePath_;
    const std::string csvPath_;
    DemoDevices devices_;
    CVorlanFactoryToolDlg window_;
    DemoOperator operator_;
    DeviceTraffic traffic_;
};

}  // namespace simulator
