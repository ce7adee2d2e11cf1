// The operator of the demo: what a person does at the window, in the order of a working day. The
// boxes that come up are answered by ScriptedAnswers.
#pragma once

#include <QString>
#include <map>
#include <string>

#include "demo/operator/windowoperator.h"
#include "demo/report.h"
#include "demo/scriptedanswers.h"
#include "demo/usbdevices.h"

namespace simulator {

// Each step is false, and the report says why, if the window did not follow.
class DemoOperator {
  public:
    DemoOperator(Report& report, QWidget& window)
        : report_(report), window_(window), hands_(window) {}

    // Turns to every page and ends on the USB page, with a picture of each.
    bool visitPages();
    bool openUsbPage();
    bool openSerialPage();
    bool choosePackage(ScriptedAnswers& answers, const std::string& path);
    bool importNumbers(ScriptedAnswers& answers, const std::string& path);
    bool startBurning();
    bool isBurning() const { return hands_.isEnabled(QStringLiteral("停止烧录")); }
    // Types a label for the places of three devices, saves, and looks into the file. What goes
    // wrong at two of these places later must not lose the label.
    bool labelPlaces(UsbDevices& devices);
    // Tries to import numbers and to close the window, neither of which burning allows.
    bool tryWhatMustWait(ScriptedAnswers& answers);
    bool stopBurning();

    // Writes what the window shows to a PNG file of that name in the current directory.
    bool takePicture(const char* name);

    // The label that the place of the device has been given; empty if none.
    QString labelOf(const std::string& deviceId) const;
    // What the window says.
    unsigned burnCount() const;

  private:
    bool press(const QString& text);
    bool checkSavedLabels();

    Report& report_;
    QWidget& window_;
    WindowOperator hands_;
    std::map<std::string, QString> labels_;  // by device id
};

}  // namespace simulator
