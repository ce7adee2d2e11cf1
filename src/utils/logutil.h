// The run log: leveled lines with a fixed header. Each module that logs defines LOG_TAG, a narrow
// string that names it in the line, and uses the LOG macros.
#pragma once

#include <cstdarg>
#include <string>

namespace hj {

// Levels, in the order of the threshold: D ranks above I.
enum Level : int { kInfo = 0, kDebug = 1, kWarning = 2, kError = 3 };

// Where finished lines go.
class LogPrinter {
  public:
    // `line` has no line end. Called on any thread, several at once.
    virtual void print(int level, const std::string& line) = 0;

  protected:
    ~LogPrinter() = default;
};

// Installs the printer, which the caller owns and keeps alive until clearLogPrinter or the end of
// the process. Without a printer the lines go to the trace.
void setLogPrinter(LogPrinter* printer);
void clearLogPrinter();

// Lines below `level` are dropped. The threshold is 0 at start, so that every line passes.
void setLogLevel(int level);

[[gnu::format(printf, 3, 4)]] void logI(const char* tag, int line, const char* format, ...);
[[gnu::format(printf, 3, 4)]] void logD(const char* tag, int line, const char* format, ...);
[[gnu::format(printf, 3, 4)]] void logW(const char* tag, int line, const char* format, ...);
[[gnu::format(printf, 3, 4)]] void logE(const char* tag, int line, const char* format, ...);

// One finished line: a header of 80 columns with time, process, thread, level, the tag's first 12
// characters and the source line, then " :" and the message, cut to 10,239 bytes.
[[gnu::format(printf, 4, 0)]] std::string formatLogLine(int level, const char* tag, int line,
                                                        const char* format, std::va_list arguments);

}  // namespace hj

#define LOG_I(...) hj::logI(LOG_TAG, __LINE__, __VA_ARGS__)
#define LOG_D(...) hj::logD(LOG_TAG, __LINE__, __VA_ARGS__)
#define LOG_W(...) hj::logW(LOG_TAG, __LINE__, __VA_ARGS__)
#define LOG_E(...) hj::logE(LOG_TAG, __LINE__, __VA_ARGS__)
