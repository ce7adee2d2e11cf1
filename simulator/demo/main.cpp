// The demo: burns real packages into simulated devices and proves the result.
//
//     demo REPORT [--live]
//
// Runs in the current directory, writes its report to the file REPORT, with a live view if that is
// a terminal, and exits 0 only if every flash and every serial number is as it must be.
#include <cstdio>
#include <string_view>

#include "simulator/demo/report.h"
#include "simulator/demo/usbdemo.h"
#include "utils/filelogprinter.h"
#include "utils/fileutil.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: demo REPORT [--live]\n", stderr);
        return 2;
    }
    const bool live = argc > 2 && std::string_view(argv[2]) == "--live";
    simulator::Report report(argv[1], live);
    if (!report.isOpen()) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 2;
    }
    fileutil::createDirectories(L"log\\");
    FileLogPrinter log("log\\run.log");
    hj::setLogPrinter(&log);
    const bool good = simulator::UsbDemo(report).run();
    hj::clearLogPrinter();
    report.line(good ? "PASSED: every flash and every serial number is as it must be" : "FAILED");
    return good ? 0 : 1;
}
