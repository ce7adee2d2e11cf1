#include "demo/report.h"

#include <cstdarg>
#include <cstdio>

namespace simulator {

Report::Report(const std::string& path) : out_(fileutil::openFile(path, "w")) {}

void Report::line(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(out_.get(), format, arguments);
    va_end(arguments);
    std::fputc('\n', out_.get());
    std::fflush(out_.get());
}

bool Report::fail(const std::string& text) {
    line("FAILED: %s", text.c_str());
    return false;
}

}  // namespace simulator
