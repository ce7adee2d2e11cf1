// The demo: the program's own window over simulated devices, worked by a script, with proof of the
// result.
//
//     demo REPORT [--watched]
//
// Runs in the current directory, writes its report to the file REPORT, and exits 0 only if every
// flash and every serial number is as it must be. Watched, it takes its time, and the window is the
// onlooker's when the script has ended.
#include <QApplication>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include "demo/demo.h"
#include "demo/report.h"
#include "ui/applicationlook.h"

using simulator::Audience;
using simulator::Demo;
using simulator::Report;

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

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc < 2) {
        std::fputs("usage: demo REPORT [--watched]\n", stderr);
        return 2;
    }
    const bool watched = argc > 2 && std::string_view(argv[2]) == "--watched";
    Report report(argv[1]);
    if (!report.isOpen()) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 2;
    }
    setUpApplication(application);
    Demo demo(report, watched ? Audience::kOnlooker : Audience::kNobody);
    const Demo::Result result = demo.run();
    tell(report, result);
    report.line("all files of this run: %s", std::filesystem::current_path().c_str());
    if (watched && demo.isWindowOpen()) {
        report.line("the window is yours; the devices stay plugged in until it is closed");
        demo.leaveToOnlooker();
    }
    return result == Demo::Result::kPassed ? 0 : 1;
}
