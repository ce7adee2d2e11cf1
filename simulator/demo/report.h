// The demo's own output: lines for the reader, and a live view of the tiles where it is a terminal.
// Kept apart from standard output and standard error, which belong to the program's own messages.
#pragma once

#include <chrono>
#include <string>

#include "simulator/demo/consoleburner.h"
#include "utils/fileutil.h"

namespace simulator {

class Report {
  public:
    // Writes to the file at `path`; `live` says that it is a terminal.
    Report(const std::string& path, bool live);

    bool isOpen() const { return out_ != nullptr; }

    // One finished line.
    [[gnu::format(printf, 2, 3)]] void line(const char* format, ...);

    // The tiles as they are now, in place of the last view. Nothing unless live; at most about ten
    // times a second.
    void showTiles(const ConsoleBurner::Tiles& tiles);

  private:
    void eraseView();

    fileutil::FilePtr out_;
    bool live_;
    int viewLines_ = 0;
    std::chrono::steady_clock::time_point lastView_;
};

}  // namespace simulator
