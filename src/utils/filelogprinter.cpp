#include "utils/filelogprinter.h"

#include <cstdio>

#include "platform/file.h"
#include "utils/trace.h"

namespace {

constexpr int kEarlierLogs = 10;

void keepEarlier(const std::string& path) {
    const std::string stem = path.substr(0, path.rfind('.'));
    const std::string ending = path.substr(stem.size());
    const auto earlier = [&](int runs) {
        return runs == 0 ? path : stem + "." + std::to_string(runs) + ending;
    };
    for (int runs = kEarlierLogs; runs > 0; --runs)
        fileutil::movePath(earlier(runs - 1), earlier(runs));
}

}  // namespace

FileLogPrinter::FileLogPrinter(const std::string& path) {
    keepEarlier(path);
    file_ = fileutil::openFile(path, "wb");
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
