// The demo: the program's own window over simulated devices.
//
//     demo REPORT [--watched]
//     demo --floor [PICTURE]
//
// Worked by a script, it runs in the current directory, writes its report to the file REPORT, and
// exits 0 only if every flash and every serial number is as it must be. Watched, it takes its time,
// and the window is the onlooker's when the script has ended. With the floor beside it the window
// is a trainer's from the beginning; or, with PICTURE, only a picture of the floor with some
// devices is taken.
#include <QApplication>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <utility>

#include "demo/demo.h"
#include "demo/demopackage.h"
#include "demo/floor/floor.h"
#include "demo/operator/windowoperator.h"
#include "demo/report.h"
#include "ui/applicationlook.h"
#include "window/vorlanfactorytooldlg.h"

namespace fs = std::filesystem;
using simulator::Audience;
using simulator::Demo;
using simulator::Report;
using simulator::WindowOperator;

namespace {

void tell(Report& report, Demo::Result result) {
    switch (result) {
        case Demo::Result::kPassed:
            report.line("PASSED: every flash and every serial number is as it must be");
            break;
        case Demo::Result::kFailed:
            report.line("FAILED");
            break;
        case Demo::Result::kEndedByOperator:
            report.line("ended early by the operator: nothing has been proven");
            break;
    }
}

// `picture` may be null.
int openFloor(const char* picture) {
    constexpr unsigned kSerialNumbers = 100;
    constexpr int kGap = 8;  // pixels
    simulator::FloorGoods goods{simulator::demoPackage(), {}};
    for (unsigned i = 1; i <= kSerialNumbers; ++i)
        goods.numbers.push_back(simulator::demoSerialNumber(i));
    if (!simulator::writeDemoFiles(goods.package, "sample.vrk", "serial-numbers.csv",
                                   kSerialNumbers)) {
        std::fputs("the sample package cannot be written\n", stderr);
        return 1;
    }
    simulator::Floor floor(std::move(goods), fs::current_path() / "ports");
    CVorlanFactoryToolDlg window;
    window.OnInitDialog();
    floor.show();
    if (picture != nullptr) {
        WindowOperator hands(floor);
        for (const char* const socket : {"插入 USB 1", "插入 USB 2", "插入 USB 5"})
            hands.press(QString::fromUtf8(socket));
        return floor.grab().save(QString::fromUtf8(picture)) ? 0 : 1;
    }
    window.move(0, 0);
    floor.move(window.frameGeometry().topRight() + QPoint(kGap, 0));
    return QApplication::exec();
}

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc < 2) {
        std::fputs("usage: demo REPORT [--watched], or demo --floor\n", stderr);
        return 2;
    }
    setUpApplication(application);
    if (std::string_view(argv[1]) == "--floor")
        return openFloor(argc > 2 ? argv[2] : nullptr);
    const bool watched = argc > 2 && std::string_view(argv[2]) == "--watched";
    Report report(argv[1]);
    if (!report.isOpen()) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 2;
    }
    Demo demo(report, watched ? Audience::kOnlooker : Audience::kNobody);
    const Demo::Result result = demo.run();
    tell(report, result);
    report.line("all files of this run: %s", fs::current_path().c_str());
    if (watched && demo.isWindowOpen()) {
        report.line("the window is yours; the devices stay plugged in until it is closed");
        demo.leaveToOnlooker();
    }
    return result == Demo::Result::kPassed ? 0 : 1;
}
