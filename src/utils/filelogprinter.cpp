#include "utils/filelogprinter.h"

#include <cstdio>

#include "platform/file.h"
#include "utils/trace.h"

FileLogPrinter::FileLogPrinter(const std::string& path) : file_(fileutil::openFile(path, "wb")) {
    if (file_ == nullptr)
        TRACE("%s cannot be opened: %s\n", path.c_str(), platform::lastErrorText().c_str());
}

void FileLogPrinter::print(int /*level*/, const std::string& line) {
    TRACE("%s\n", line.c_str());

    std::string bytes;
    bytes.reserve(line.size() + 4);
    for (const char c : line) {
        if (c == '\n')
            bytes.push_back('\r');
        bytes.push_back(c);
    }
    bytes += "\r\n";

    const std::lock_guard guard(lock_);
    if (file_ == nullptr)
        return;
    std::fwrite(bytes.data(), 1, bytes.size(), file_.get());
    std::fflush(file_.get());
}
