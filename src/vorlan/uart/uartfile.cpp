#include "vorlan/uart/uartfile.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "vorlan/uart/uarttrace.h"

bool uart_file_open(UartFile& file, const char* path) {
    uart_file_close(file);
    file.path = path;
    file.stream = fileutil::openFile(path, "rb");
    if (file.stream != nullptr) {
        if (const auto size = fileutil::sizeOf(file.stream.get())) {
            file.size = *size;
            return true;
        }
    }
    UART_TRACE("cannot open %s: %s\n", path, std::generic_category().message(errno).c_str());
    uart_file_close(file);
    return false;
}

std::uint32_t uart_file_size(const UartFile& file) {
    return file.size;
}

const std::uint8_t* uart_file_read(UartFile& file, std::uint32_t& count) {
    if (file.buffer.size() < count)
        file.buffer.resize(count);
    count = static_cast<std::uint32_t>(std::fread(file.buffer.data(), 1, count, file.stream.get()));
    return file.buffer.data();
}

const std::uint8_t* uart_file_next(UartFile& file, std::uint32_t count) {
    std::uint32_t got = count;
    const std::uint8_t* const bytes = uart_file_read(file, got);
    return got == count ? bytes : nullptr;
}

const std::uint8_t* uart_file_read_all(UartFile& file) {
    std::rewind(file.stream.get());
    return uart_file_next(file, file.size);
}

void uart_file_close(UartFile& file) {
    file = {};
}
