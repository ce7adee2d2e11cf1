#include "demo/serialdemo.h"

#include "demo/scriptedanswers.h"
#include "demo/serialcheck.h"

namespace simulator {

bool SerialDemo::playUnwatched(const std::string& packagePath) {
    ScriptedAnswers answers;
    if (!operator_.openSerialPage() || !operator_.choosePackage(answers, packagePath))
        return false;
    traffic_.firstHalfComes();
    const bool played = operator_.startBurning() && traffic_.secondHalfComes() &&
                        operator_.tryWhatMustWait(answers) && traffic_.waitForMidBurn() &&
                        operator_.takePicture("serial-page-burning.png") &&
                        traffic_.oneLeavesAndReturns() && traffic_.waitForTheEnd() &&
                        operator_.takePicture("serial-page-end.png") && operator_.stopBurning();
    bool good = played && check();
    for (const std::string& complaint : answers.complaints())
        good = report_.fail(complaint);
    return good;
}

bool SerialDemo::playForOnlooker(const std::string& packagePath) {
    {
        // From here on the boxes are on the screen, for whoever sits there.
        ScriptedAnswers answers;
        if (!operator_.openSerialPage() || !operator_.choosePackage(answers, packagePath))
            return false;
    }
    traffic_.firstHalfComes();
    return operator_.startBurning() && traffic_.secondHalfComes() && traffic_.waitForMidBurn() &&
           traffic_.oneLeavesAndReturns() && traffic_.waitForTheEnd() && check();
}

bool SerialDemo::check() {
    return SerialCheck(report_, operator_, proof_).check(devices_);
}

}  // namespace simulator
