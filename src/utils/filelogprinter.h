// Writes the run log's lines to a file, "log\run.log" in the program.
#pragma once

#include <mutex>
#include <string>

#include "utils/fileutil.h"
#include "utils/logutil.h"

class FileLogPrinter final : public hj::LogPrinter {
  public:
    // Creates the file at once; "run.log" of the run before becomes "run.1.log", that "run.2.log"
    // and so on, up to "run.10.log". If it cannot be opened, the lines go to the trace only.
    explicit FileLogPrinter(const std::string& path);

    // Copies the line to the trace, then appends it with CR LF and flushes: a line is out of the
    // process when this returns. Line feeds within the line become CR LF as well.
    void print(int level, const std::string& line) override;

  private:
    std::mutex lock_;
    fileutil::FilePtr file_;
};
