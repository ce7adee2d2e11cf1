// The demo's own output, kept apart from standard output and standard error, which belong to the
// program's own messages.
#pragma once

#include <string>

#include "utils/fileutil.h"

namespace simulator {

class Report {
  public:
    // Writes to the file at `path`.
    explicit Report(const std::string& path);

    bool isOpen() const { return out_ != nullptr; }

    // One finished line.
    [[gnu::format(printf, 2, 3)]] void line(const char* format, ...);

    // A line that says what went wrong; always false.
    bool fail(const std::string& text);

  private:
    fileutil::FilePtr out_;
};

}  // namespace simulator
