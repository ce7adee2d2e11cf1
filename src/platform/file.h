// The file operations that the standard library lacks: locks, writes that are on the disk when they
// return, and replacing a file as a whole. No file that is opened here passes on to the programs
// that the process starts. Paths are native ones. No operation throws; where one fails,
// lastErrorText() says why.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The system's text for the calling thread's last failed file operation.
std::string lastErrorText();

// Owns one open file. Used by one thread at a time, save that any number may read, write and sync
// an open one.
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

    // The same for a file that is made if there is none.
    bool openOrCreate(const std::string& path);

    // The same for a lock file of the current user in a directory that others may write to: made
    // for nobody else if there is none, and neither a link nor somebody else's file is opened.
    bool openLockFile(const std::string& path);
    bool isOpen() const { return descriptor_ >= 0; }
    void close();

    enum class Lock { kTaken, kHeldElsewhere, kFailed };

    // Keeps every other File, in this process or another, from getting the same lock until this one
    // is closed. Does not wait and does not keep anybody from reading.
    Lock lockExclusively();

    // Whether `path` leads to the very file that is open here.
    bool isFileAt(const std::string& path) const;
    bool isSameFile(const File& other) const;

    // Differs from an earlier one if anybody has written to the file in between, and from that of
    // any other file.
    struct Stamp {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t size = 0;     // in bytes
        std::int64_t modified = 0;  // in ns since 1970, as is the next
        std::int64_t changed = 0;
        bool operator==(const Stamp&) const = default;
    };
    // Nothing on an error.
    std::optional<Stamp> stamp() const;

    // Reads up to `size` bytes from `offset` and gives their number, which is smaller at the end of
    // the file only; nothing on an error.
    std::optional<std::size_t> readAt(std::uint64_t offset, char* buffer, std::size_t size) const;

    // Writes all bytes at `offset`.
    bool writeAt(std::uint64_t offset, std::string_view bytes) const;

    // Cuts off what lies behind `size` bytes.
    bool truncate(std::uint64_t size) const;

    // Returns once all that was written is on the disk.
    bool syncData() const;

  private:
    bool open(const std::string& path, int flags, unsigned mode = 0);

    int descriptor_ = -1;
};

// As fopen.
std::FILE* openStream(const std::string& path, const char* mode);

// Of the file behind an open stream; nothing on an error.
std::optional<File::Stamp> stampOf(std::FILE* stream);

// Writes `bytes` to `path` + ".new", syncs it and renames it over `path`, so that whoever looks,
// after whatever end of the process, finds the old content or the new one. What an end in between
// leaves under the other name is taken over by the next call. One thread at a time for each path.
bool replaceFile(const std::string& path, std::string_view bytes);

}  // namespace platform
