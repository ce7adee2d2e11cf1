#include "demo/usbdemo.h"

#include "demo/scriptedanswers.h"
#include "demo/usbcheck.h"

namespace simulator {

bool UsbDemo::playUnwatched(const std::string& packagePath, const std::string& csvPath) {
    ScriptedAnswers answers;
    if (!operator_.visitPages() || !operator_.choosePackage(answers, packagePath) ||
        !operator_.importNumbers(answers, csvPath))
        return false;
    traffic_.firstHalfComes();
    const bool played = operator_.startBurning() && traffic_.secondHalfComes() &&
                        operator_.labelPlaces(devices_) && operator_.tryWhatMustWait(answers) &&
                        traffic_.oneTooManyComes() && traffic_.waitForMidBurn() &&
                        operator_.takePicture("usb-page-burning.png") &&
                        traffic_.oneLeavesAndReturns() && traffic_.waitForTheEnd() &&
                        traffic_.lateOneTakesAPlace() &&
                        operator_.takePicture("usb-page-end.png") && operator_.stopBurning();
    bool good = played && check();
    for (const std::string& complaint : answers.complaints())
        good = report_.fail(complaint);
    return good;
}

bool UsbDemo::playForOnlooker(const std::string& packagePath, const std::string& csvPath) {
    {
        // From here on the boxes are on the screen, for whoever sits there.
        ScriptedAnswers answers;
        if (!operator_.openUsbPage() || !operator_.choosePackage(answers, packagePath) ||
            !operator_.importNumbers(answers, csvPath))
            return false;
    }
    traffic_.firstHalfComes();
    return operator_.startBurning() && traffic_.secondHalfComes() &&
           operator_.labelPlaces(devices_) && traffic_.oneTooManyComes() &&
           traffic_.waitForMidBurn() && traffic_.oneLeavesAndReturns() &&
           traffic_.waitForTheEnd() && traffic_.lateOneTakesAPlace() && check();
}

bool UsbDemo::check() {
    return UsbCheck(report_, package_, operator_, proof_).check(devices_);
}

}  // namespace simulator
