#include "simulator/demo/usbdemo.h"

#include <QApplication>
#include <QTimer>
#include <filesystem>
#include <fstream>

#include "simulator/demo/burncheck.h"
#include "simulator/demo/scriptedanswers.h"

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr unsigned kSerialNumbers = 100;

std::string inCurrentDirectory(const char* name) {
    return (std::filesystem::current_path() / name).string();
}

std::chrono::microseconds chunkTimeFor(UsbDemo::Audience audience) {
    return audience == UsbDemo::Audience::kNobody ? 2500us : 15ms;
}

std::chrono::milliseconds pauseFor(UsbDemo::Audience audience) {
    return audience == UsbDemo::Audience::kNobody ? 0ms : 500ms;
}

}  // namespace

UsbDemo::UsbDemo(Report& report, Audience audience)
    : report_(report),
      audience_(audience),
      packagePath_(inCurrentDirectory("sample.vrk")),
      csvPath_(inCurrentDirectory("serial-numbers.csv")),
      devices_(report, chunkTimeFor(audience)),
      operator_(report, window_),
      traffic_(report, window_, operator_, devices_, pauseFor(audience)) {}

void UsbDemo::leaveToOnlooker() {
    bool used = true;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        const bool burning = operator_.isBurning();
        if (used && !burning)
            devices_.plugAnew();
        used = burning;
    });
    timer.start(200ms);
    QApplication::exec();
}

UsbDemo::Result UsbDemo::run() {
    if (!prepare())
        return Result::kFailed;
    window_.OnInitDialog();
    const auto start = std::chrono::steady_clock::now();
    const bool good = audience_ == Audience::kNobody ? runUnwatched() : runForOnlooker();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    report_.line("USB road: %.1f s", elapsed.count());
    if (good)
        return Result::kPassed;
    return audience_ == Audience::kOnlooker && traffic_.isEndedByOperator()
               ? Result::kEndedByOperator
               : Result::kFailed;
}

bool UsbDemo::prepare() {
    // What an earlier run has left would be loaded.
    for (const char* const name : {"tag_map", "global_storage"})
        std::filesystem::remove(name);
    std::ofstream(csvPath_, std::ios::binary) << sampleSerialNumbers(kSerialNumbers);
    return package_.writeZip(packagePath_) || report_.fail("the sample package cannot be written");
}

bool UsbDemo::runUnwatched() {
    ScriptedAnswers answers;
    if (!operator_.visitPages() ||
        !operator_.chooseFiles(answers, QString::fromStdString(packagePath_),
                               QString::fromStdString(csvPath_)))
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

bool UsbDemo::runForOnlooker() {
    {
        // From here on the boxes are on the screen, for whoever sits there.
        ScriptedAnswers answers;
        if (!operator_.openUsbPage() ||
            !operator_.chooseFiles(answers, QString::fromStdString(packagePath_),
                                   QString::fromStdString(csvPath_)))
            return false;
    }
    traffic_.firstHalfComes();
    return operator_.startBurning() && traffic_.secondHalfComes() &&
           operator_.labelPlaces(devices_) && traffic_.oneTooManyComes() &&
           traffic_.waitForMidBurn() && traffic_.oneLeavesAndReturns() &&
           traffic_.waitForTheEnd() && traffic_.lateOneTakesAPlace() && check();
}

bool UsbDemo::check() {
    return BurnCheck(report_, package_, operator_, csvPath_, kSerialNumbers).check(devices_);
}

}  // namespace simulator
