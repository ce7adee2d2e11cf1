// The file operations that the standard library lacks: locks, writes that are on the disk when they
// return, and replacing a file as a whole. Paths are native ones. No operation throws; where one
// fails, lastErrorText() says why.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The system's text for the calling thread's last failed file operation.
std::string lastErrorText();

// Owns one open file. Used by one thread at a time.
class File {
  public:
    File() = default;
    ~File() { close(); }
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens an existing regular file for reading and writing, without truncation and shared with
    // other readers and writers.
    bool openExisting(const std::string& path);
    bool isOpen() const { return descriptor_ >= 0; }
    void close();

    // Keeps every other File, in this process or another, from getting the same lock until this one
    // is closed. Does not wait and does not keep anybody from reading.
    bool lockExclusively();

    // Whether `path` leads to the very file that is open here.
    bool isFileAt(const std::string& path) const;
    bool isSameFile(const File& other) const;

    // Reads up to `size` bytes from `offset` and gives their number, which is smaller at the end of
    // the file only; nothing on an error.
    std::optional<std::size_t> readAt(std::uint64_t offset, char* buffer, std::size_t size) const;

    // Writes all bytes at `offset`.
    bool writeAt(std::uint64_t offset, std::string_view bytes);

    // Returns once all that was written is on the disk.
    bool syncData();

  private:
    int descriptor_ = -1;
};

// Writes `bytes` to a temporary file beside `path`, syncs it and renames it over `path`, so that
// whoever looks, after whatever end of the process, finds the old content or the new one.
bool replaceFile(const std::string& path, std::string_view bytes);

}  // namespace platform
