// The trace: developers' lines with their source file and line, on standard error. Nothing in the
// program's behaviour depends on it.
#pragma once

// Prints "FILE(LINE): atlTraceGeneral - MESSAGE" with no line end of its own. A message of more
// than 1,023 characters is dropped as a whole. Any thread; lines do not interleave.
[[gnu::format(printf, 3, 4)]] void traceMessage(const char* file, int line, const char* format,
                                                ...);
void traceMessage(const char* file, int line, const wchar_t* format, ...);

#define TRACE(...) traceMessage(__FILE_NAME__, __LINE__, __VA_ARGS__)
