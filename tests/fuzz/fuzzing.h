// What the fuzz targets share: the end of a run that broke a rule, quiet streams, and for those
// that play a device the input read as a script.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// Ends the program as found faulty unless the rule holds. The line goes past the silenced streams.
inline void require(bool holds, const char* rule) {
    if (holds)
        return;
    for (const char* const part : {"broken: ", rule, "\n"})
        (void)!::write(STDERR_FILENO, part, std::strlen(part));
    std::abort();
}

// Sends the trace and what is printed nowhere from now on: a fuzzer makes millions of lines. The
// fuzzer's own reports are not touched.
inline void silenceOutput() {
    static const bool silenced = [] {
        stdout = stderr = std::fopen("/dev/null", "w");
        return true;
    }();
    (void)silenced;
}

// The input, taken from its start byte by byte.
class Script {
  public:
    Script(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool isAtEnd() const { return at_ == size_; }

    // The next byte; `otherwise` at the end.
    std::uint8_t next(std::uint8_t otherwise = 0) { return at_ < size_ ? data_[at_++] : otherwise; }

    // The next bytes, fewer at the end.
    Bytes take(std::size_t count) {
        const std::size_t taken = std::min(count, size_ - at_);
        Bytes bytes(data_ + at_, data_ + at_ + taken);
        at_ += taken;
        return bytes;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};
