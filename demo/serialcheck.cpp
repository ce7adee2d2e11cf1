#include "demo/serialcheck.h"

#include "demo/demopackage.h"

namespace simulator {

bool SerialCheck::check(SerialDevices& devices) {
    bool correct = true;
    for (const SerialDevice& device : devices.all())
        correct = checkDevice(device) && correct;
    correct = proof_.checkSerialNumbers(report_) && correct;
    return proof_.checkBurnCount(report_, worker_) && correct;
}

bool SerialCheck::checkDevice(const SerialDevice& device) {
    std::string trouble = troubleWith(device);
    for (const std::string& error : device.device->errors())
        trouble += "; " + error;

    const char* const proof = device.fate == SerialDevice::Fate::kBurned
                                  ? "flash identical to the package"
                                  : "failed where it should";
    report_.line("device %-9s %s  %s", device.device->portName().c_str(),
                 device.outcome.status.toStdString().c_str(),
                 trouble.empty() ? proof : ("WRONG: " + trouble).c_str());
    return trouble.empty();
}

// Empty if nothing is wrong.
std::string SerialCheck::troubleWith(const SerialDevice& device) {
    const bool fails = device.fate == SerialDevice::Fate::kRefusesDigest;
    if (device.outcome.active == fails)
        return fails ? "its tile is not greyed out" : "its tile is greyed out";
    if (device.device->downloadedProxy() != demoProxy())
        return "flash proxy differs from its file";
    if (!fails)
        return proof_.troubleWithBurned(device.device->flash(), device.outcome);
    if (device.outcome.status != QStringLiteral("出错, code=-5, des=MD5 CHECK ERROR"))
        return "should have failed with its digest";
    return proof_.troubleWithNumberless(device.device->flash());
}

}  // namespace simulator
