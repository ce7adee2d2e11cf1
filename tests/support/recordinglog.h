// Installs itself as the run log's printer and keeps the lines.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "utils/logutil.h"

class RecordingLog final : public hj::LogPrinter {
  public:
    RecordingLog() { hj::setLogPrinter(this); }
    ~RecordingLog() { hj::clearLogPrinter(); }
    RecordingLog(const RecordingLog&) = delete;
    RecordingLog& operator=(const RecordingLog&) = delete;

    void print(int level, const std::string& line) override {
        const std::lock_guard guard(lock_);
        lines_.emplace_back(level, line);
    }

    // The lines of one level since the last call.
    std::vector<std::string> take(int level) {
        const std::lock_guard guard(lock_);
        std::vector<std::string> taken;
        for (const auto& [lineLevel, line] : std::exchange(lines_, {}))
            if (lineLevel == level)
                taken.push_back(line);
        return taken;
    }

  private:
    std::mutex lock_;
    std::vector<std::pair<int, std::string>> lines_;
};
