// The fault campaign: the program's own window, sixteen devices a page, and all that can go wrong.
//
//     campaign REPORT [--seed N] [--burns N] [--road usb|serial] [--weather calm|storm]
//     campaign WITNESS --until-killed LIST [--seed N] [--road usb|serial]
//
// Runs in the current directory until that many burns have ended, writes to the file REPORT what
// happened, and exits 0 only if every rule held. The seed decides what happens to the devices; in
// which order threads come to it is up to the machine. Until it is killed it goes on with the files
// that the one before has left, and adds to the file WITNESS what must hold afterwards.
#include <QApplication>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "campaign/campaign.h"
#include "campaign/serialroad.h"
#include "campaign/usbroad.h"
#include "simulator/clock/turnedclock.h"
#include "ui/applicationlook.h"
#include "utils/fileutil.h"

namespace {

// Sixteen devices go in step where their waits are about the same.
constexpr std::chrono::milliseconds kGrain{10};

struct Orders {
    std::uint32_t seed = 1;
    std::size_t burns = 1000;
    std::string road;
    std::string list;  // of numbers, until killed
    campaign::Weather weather = campaign::Weather::kStorm;
};

bool parse(int argc, char** argv, Orders& orders) {
    for (int i = 2; i < argc; i += 2) {
        const std::string_view option = argv[i];
        if (i + 1 == argc)
            return false;
        if (option == "--seed")
            orders.seed = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        else if (option == "--burns")
            orders.burns = std::strtoul(argv[i + 1], nullptr, 10);
        else if (option == "--road")
            orders.road = argv[i + 1];
        else if (option == "--until-killed")
            orders.list = argv[i + 1];
        else if (option == "--weather")
            orders.weather = argv[i + 1] == std::string_view("calm") ? campaign::Weather::kCalm
                                                                     : campaign::Weather::kStorm;
        else
            return false;
    }
    return argc > 1;
}

void tell(std::FILE* report, const Orders& orders, const campaign::Campaign& campaign) {
    const campaign::Ledger& ledger = campaign.ledger();
    std::fprintf(report, "seed %u: %zu days, %zu devices burned, %zu failures told\n", orders.seed,
                 campaign.days(), ledger.goodBurns(), ledger.failedBurns());
    for (const auto& [page, milliseconds] : campaign.longestStops())
        std::fprintf(report, "longest stop of the page %s: %ld ms\n", page.toUtf8().constData(),
                     milliseconds);
    for (const auto& [text, count] : campaign.answers().boxes().toStdMap())
        std::fprintf(report, "box, %d times: %s\n", count, text.toUtf8().constData());
    for (const auto& [reason, count] : ledger.reasons())
        std::fprintf(report, "failure, %zu times: %s\n", count, reason.c_str());
    std::fprintf(report, "findings: %zu\n", ledger.findings().size());
}

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    Orders orders;
    if (!parse(argc, argv, orders)) {
        std::fputs(
            "usage: campaign REPORT [--seed N] [--burns N] [--road usb|serial] [--weather "
            "calm|storm]\n",
            stderr);
        return 2;
    }
    if (orders.list.empty()) {
        // What an earlier run has left would be loaded.
        for (const char* const name : {"global_storage", "tag_map"})
            std::filesystem::remove(name);
    }
    const fileutil::FilePtr report = fileutil::openFile(argv[1], "a");
    if (report == nullptr) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 2;
    }
    setUpApplication(application);
    std::filesystem::create_directories("ports");
    campaign::UsbRoad usb;
    campaign::SerialRoad serial(std::filesystem::current_path() / "ports");
    std::vector<campaign::Road*> roads;
    if (orders.road != "serial")
        roads.push_back(&usb);
    if (orders.road != "usb")
        roads.push_back(&serial);
    const TurnedClock clock(kGrain);
    campaign::Campaign campaign(orders.seed, orders.weather, roads);
    if (!orders.list.empty()) {
        campaign.playUntilKilled(orders.list, argv[1]);
        return 1;
    }
    std::size_t told = 0;  // findings
    while (campaign.burns() < orders.burns) {
        campaign.playDay();
        const campaign::Footprint now = campaign::footprint();
        std::fprintf(report.get(),
                     "day %zu: %zu burns, %zu findings; %zu KiB resident, %zu KiB of heap, "
                     "%zu threads, %zu descriptors\n",
                     campaign.days(), campaign.burns(), campaign.ledger().findings().size(),
                     now.residentKiB, now.heapKiB, now.threads, now.descriptors);
        const std::vector<std::string> findings = campaign.ledger().findings();
        for (; told < findings.size(); ++told) {
            std::fprintf(report.get(), "FINDING: %s\n", findings[told].c_str());
            std::fprintf(stderr, "FINDING: %s\n", findings[told].c_str());
        }
        std::fflush(report.get());
    }
    campaign.closeWindow();
    tell(report.get(), orders, campaign);
    return campaign.ledger().findings().empty() ? 0 : 1;
}
