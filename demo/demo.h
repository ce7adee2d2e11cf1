// The demo, in the program's own window: an operator burns devices over both roads, first USB and
// then serial ports, from a real package with real serial numbers.
#pragma once

#include <string>

#include "demo/audience.h"
#include "demo/burnproof.h"
#include "demo/demooperator.h"
#include "demo/demopackage.h"
#include "demo/report.h"
#include "demo/serialdemo.h"
#include "demo/serialdevices.h"
#include "demo/tilewatch.h"
#include "demo/usbdemo.h"
#include "demo/usbdevices.h"
#include "window/vorlanfactorytooldlg.h"

namespace simulator {

// Runs in the current directory, which gets all files of the run.
class Demo {
  public:
    enum class Result { kPassed, kFailed, kEndedByOperator };

    Demo(Report& report, Audience audience);

    Result run();

    bool isWindowOpen() const { return window_.isVisible(); }

    // Lets somebody work with the window until it is closed. When burning has been stopped, the
    // devices are unplugged and plugged in again, so that the next start burns them anew.
    void leaveToOnlooker();

  private:
    bool prepare();
    bool playBoth();
    bool playUsb();
    bool playSerial();

    Report& report_;
    const Audience audience_;
    const SamplePackage package_ = demoPackage();
    const std::string packagePath_;
    const std::string csvPath_;
    UsbDevices usbDevices_;
    SerialDevices serialDevices_;
    CVorlanFactoryToolDlg window_;
    DemoOperator operator_;
    TileWatch watch_;
    BurnProof proof_;
    UsbDemo usb_;
    SerialDemo serial_;
};

}  // namespace simulator
