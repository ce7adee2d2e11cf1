#include "utils/logutil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "platform/clock.h"
#include "platform/process.h"
#include "utils/trace.h"

namespace hj {
namespace {

std::atomic<LogPrinter*> printer{nullptr};
std::atomic<int> threshold{0};

constexpr std::size_t kContentSize = 10240;  // bytes of a message, terminator included
constexpr std::size_t kHeaderSize = 100;     // bytes of a header, terminator included
constexpr std::size_t kHeaderColumns = 80;   // to which a header is padded

// The field after the hour is the second and the last one the minute: readers of these logs and
// their tools know it this way round.
std::string curTime() {
    // The same clock as the milliseconds': std::time may lag behind it across a second's end.
    const std::tm local =
        platform::localTime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%S:%M", &local);
    return std::string(text, length);
}

int curMilliseconds() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000);
}

const char* levelStr(int level) {
    switch (level) {
        case kInfo:
            return "I";
        case kDebug:
            return "D";
        case kWarning:
            return "W";
        case kError:
            return "E";
        default:
            return "";
    }
}

[[gnu::format(printf, 1, 0)]] std::string content(const char* format, std::va_list arguments) {
    char text[kContentSize];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0)
        return {};
    return text;
}

std::string header(int level, const char* tag, int line) {
    const std::string time = curTime();
    char text[kHeaderSize];
    std::snprintf(text, sizeof text, "[%s %03d] [P0x%08x] [T0x%08x] %s/%.12s(line %d)",
                  time.c_str(), curMilliseconds(), platform::processId(), platform::threadId(),
                  levelStr(level), tag, line);
    std::string padded = text;
    padded.resize(std::max(padded.size(), kHeaderColumns), ' ');
    return padded + " :";
}

[[gnu::format(printf, 4, 0)]] void log(int level, const char* tag, int line, const char* format,
                                       std::va_list arguments) {
    if (level < threshold)
        return;
    const std::string text = formatLogLine(level, tag, line, format, arguments);
    if (LogPrinter* const installed = printer)
        installed->print(level, text);
    else
        TRACE("%s\n", text.c_str());
}

}  // namespace

void setLogPrinter(LogPrinter* newPrinter) {
    printer = newPrinter;
}

void clearLogPrinter() {
    printer = nullptr;
}

void setLogLevel(int level) {
    threshold = level;
}

void logI(const char* tag, int line, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(kInfo, tag, line, format, arguments);
    va_end(arguments);
}

void logD(const char* tag, int line, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(kDebug, tag, line, format, arguments);
    va_end(arguments);
}

void logW(const char* tag, int line, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(kWarning, tag, line, format, arguments);
    va_end(arguments);
}

void logE(const char* tag, int line, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log(kError, tag, line, format, arguments);
    va_end(arguments);
}

std::string formatLogLine(int level, const char* tag, int line, const char* format,
                          std::va_list arguments) {
    return header(level, tag, line) + content(format, arguments);
}

}  // namespace hj
