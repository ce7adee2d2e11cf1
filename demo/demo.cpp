#include "demo/demo.h"

#include <QApplication>
#include <QTimer>
#include <chrono>
#include <filesystem>

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr unsigned kSerialNumbers = 100;
constexpr int kPausesBetweenRoads = 6;

std::string inCurrentDirectory(const char* name) {
    return (std::filesystem::current_path() / name).string();
}

// Plays a road and reports the time that it took.
template <typename Play>
bool timed(Report& report, const char* road, Play play) {
    const auto start = std::chrono::steady_clock::now();
    const bool good = play();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    report.line("%s road: %.1f s", road, elapsed.count());
    return good;
}

}  // namespace

Demo::Demo(Report& report, Audience audience)
    : report_(report),
      audience_(audience),
      packagePath_(inCurrentDirectory("sample.vrk")),
      csvPath_(inCurrentDirectory("serial-numbers.csv")),
      usbDevices_(report, audience),
      serialDevices_(report, audience, inCurrentDirectory("ports")),
      operator_(report, window_),
      watch_(report, window_, operator_, audience),
      proof_(package_, csvPath_, kSerialNumbers),
      usb_(report, operator_, watch_, usbDevices_, package_, proof_),
      serial_(report, operator_, watch_, serialDevices_, proof_) {}

void Demo::leaveToOnlooker() {
    bool used = true;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        const bool burning = operator_.isBurning();
        if (used && !burning) {
            usbDevices_.plugAnew();
            serialDevices_.plugAnew();
        }
        used = burning;
    });
    timer.start(200ms);
    QApplication::exec();
}

Demo::Result Demo::run() {
    if (!prepare())
        return Result::kFailed;
    window_.OnInitDialog();
    if (playBoth())
        return Result::kPassed;
    return audience_ == Audience::kOnlooker && watch_.isEndedByOperator() ? Result::kEndedByOperator
                                                                          : Result::kFailed;
}

bool Demo::prepare() {
    // What an earlier run has left would be loaded.
    for (const char* const name : {"tag_map", "global_storage"})
        std::filesystem::remove(name);
    return writeDemoFiles(package_, packagePath_, csvPath_, kSerialNumbers) ||
           report_.fail("the sample package cannot be written");
}

// Leaving a page in mid-burn is a question of its own; here burning is stopped before.
bool Demo::playBoth() {
    if (!timed(report_, "USB", [this] { return playUsb(); }))
        return false;
    if (audience_ == Audience::kOnlooker &&
        !(watch_.pause(kPausesBetweenRoads) && operator_.stopBurning()))
        return false;
    return timed(report_, "serial", [this] { return playSerial(); });
}

bool Demo::playUsb() {
    return audience_ == Audience::kNobody ? usb_.playUnwatched(packagePath_, csvPath_)
                                          : usb_.playForOnlooker(packagePath_, csvPath_);
}

bool Demo::playSerial() {
    return audience_ == Audience::kNobody ? serial_.playUnwatched(packagePath_)
                                          : serial_.playForOnlooker(packagePath_);
}

}  // namespace simulator
