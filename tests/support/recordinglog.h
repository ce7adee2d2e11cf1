// Installs itself as the run log's printer and keeps the lines.
#pragma once

#include <algorithm>
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

    // The lines since the last call, with their levels.
    std::vector<std::pair<int, std::string>> takeAll() {
        const std::lock_guard guard(lock_);
        return std::exchange(lines_, {});
    }

    // Those of one level; the others are dropped.
    std::vector<std::string> take(int level) {
        std::vector<std::string> taken;
        for (auto& [lineLevel, line] : takeAll())
            if (lineLevel == level)
                taken.push_back(std::move(line));
        return taken;
    }

    // The lines since the last call as "LEVEL/TAG: MESSAGE", without what differs from run to run.
    std::vector<std::string> takeMessages() {
        std::vector<std::string> messages;
        for (const auto& [level, line] : takeAll()) {
            const std::size_t number = line.find("(line ");
            const std::size_t tag = line.rfind("] ", number) + 2;
            messages.push_back(line.substr(tag, number - tag) + ": " +
                               line.substr(line.find(" :", number) + 2));
        }
        return messages;
    }

    // Whether some line so far holds the text.
    bool contains(const std::string& text) {
        const std::lock_guard guard(lock_);
        return std::any_of(lines_.begin(), lines_.end(), [&](const auto& line) {
            return line.second.find(text) != std::string::npos;
        });
    }

  private:
    std::mutex lock_;
    std::vector<std::pair<int, std::string>> lines_;
};
