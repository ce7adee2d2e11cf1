#include "simulator/demo/report.h"

#include <cstdarg>
#include <cstdio>

namespace simulator {

Report::Report(const std::string& path, bool live)
    : out_(fileutil::openFile(path, "w")), live_(live) {}

void Report::line(const char* format, ...) {
    eraseView();
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(out_.get(), format, arguments);
    va_end(arguments);
    std::fputc('\n', out_.get());
    std::fflush(out_.get());
}

void Report::showTiles(const ConsoleBurner::Tiles& tiles) {
    const auto now = std::chrono::steady_clock::now();
    if (!live_ || now - lastView_ < std::chrono::milliseconds(100))
        return;
    lastView_ = now;
    eraseView();
    // A line that wrapped would take two, and the view would not be erased whole.
    std::fputs("\033[?7l", out_.get());
    constexpr unsigned kBarWidth = 25;
    for (const ConsoleBurner::Tile& tile : tiles) {
        std::string bar(tile.percent * kBarWidth / 100, '#');
        bar.resize(kBarWidth, '.');
        const std::string port = tile.deviceId.substr(tile.deviceId.rfind('\\') + 1);
        std::fprintf(out_.get(), "%-20s [%s] %3u%%  %s\n", port.c_str(), bar.c_str(), tile.percent,
                     tile.status.c_str());
        ++viewLines_;
    }
    std::fputs("\033[?7h", out_.get());
    std::fflush(out_.get());
}

void Report::eraseView() {
    if (viewLines_ > 0)
        std::fprintf(out_.get(), "\033[%dA\033[J", viewLines_);
    viewLines_ = 0;
}

}  // namespace simulator
