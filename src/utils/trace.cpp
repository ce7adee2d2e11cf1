#include "utils/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <string>

#include "utils/text.h"

namespace {

constexpr std::size_t kMessageSize = 1024;  // characters, terminator included

void put(const char* file, int line, const std::string& message) {
    const std::string text =
        std::string(file) + "(" + std::to_string(line) + "): atlTraceGeneral - " + message;
    // One call for each line: the stream's own lock keeps lines whole.
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

void traceMessage(const char* file, int line, const char* format, ...) {
    char message[kMessageSize];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof message)
        put(file, line, message);
}

void traceMessage(const char* file, int line, const wchar_t* format, ...) {
    wchar_t message[kMessageSize];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vswprintf(message, kMessageSize, format, arguments);
    va_end(arguments);
    if (length >= 0)
        put(file, line, text::narrow(message));
}
