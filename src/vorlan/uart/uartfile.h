// A file slot of a port's burn: the image that a loader is sending.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "utils/fileutil.h"

struct UartFile {
    const char* path = nullptr;  // the caller's, who keeps it alive while the slot is open
    fileutil::FilePtr stream;
    std::uint32_t size = 0;  // bytes, when the file was opened
    std::vector<std::uint8_t> buffer;
};

// Opens the file for binary reading. False, with the slot closed and the reason in the trace, if it
// cannot be opened or has no size.
bool uart_file_open(UartFile& file, const char* path);

std::uint32_t uart_file_size(const UartFile& file);

// Reads up to `count` bytes from where the last read ended, and sets `count` to what was read. The
// bytes stay until the next read. A smaller `count` is the end of the file or a failure.
const std::uint8_t* uart_file_read(UartFile& file, std::uint32_t& count);

// Reads the next `count` bytes; null if the file does not give as many.
const std::uint8_t* uart_file_next(UartFile& file, std::uint32_t count);

// Reads the whole file from its start; null if it does not give all of its size.
const std::uint8_t* uart_file_read_all(UartFile& file);

// Safe to repeat.
void uart_file_close(UartFile& file);
