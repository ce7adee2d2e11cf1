// A firmware package as a ZIP archive: what it lists, and how its entries get onto the disk. Used
// by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "vorlan/firmware/unpackdirectory.h"

struct PackageEntry {
    std::int64_t index = 0;
    std::wstring name;       // made safe; empty if it is over-long
    bool isText = true;      // the name is well-formed UTF-8
    std::uint64_t size = 0;  // unpacked, in bytes, as the archive declares it
};

class PackageArchive {
  public:
    // Index that stands for the archive itself.
    static constexpr std::int64_t kArchive = -1;

    // Longer names are refused.
    static constexpr std::size_t kNameLimit = 260;  // characters

    // False if the file cannot be opened or is no ZIP archive; the archive is closed then.
    bool openArchive(const std::wstring& path);

    // The directory that entries are unpacked into; a missing separator at its end is added.
    void setExtractDir(const std::wstring& directory);

    // The entry of that index, from 0 upward in the archive's own order. For kArchive the `index`
    // of the result is the number of entries. False if there is no such entry or the archive's
    // directory is damaged there.
    bool readEntry(std::int64_t index, PackageEntry& entry);

    // Unpacks one entry under `name`, with its times and read-only attribute; directories are made
    // as needed. A file takes the place of an older one whole or not at all. Encrypted entries,
    // links and device files, unknown methods and damaged data fail; so does a full disk. So
    // does the interruption of the calling thread. After a failure, which the run log tells, the
    // older file is still there.
    bool extractEntry(std::int64_t index, const std::wstring& name);

    // Removes an older file of that name, if any. False if it could not.
    bool discardEntry(const std::wstring& name) const;

    // Told how many bytes of its files have been unpacked since the last call.
    void watch(std::function<void(std::uint64_t bytes)> onBytes) { onBytes_ = std::move(onBytes); }

    void closeArchive();

  private:
    struct Closer {
        void operator()(void* archive) const;
    };

    bool goTo(std::int64_t index);
    bool extractCurrent(const std::wstring& name);

    std::unique_ptr<void, Closer> archive_;
    std::int64_t count_ = 0;
    std::int64_t current_ = -1;  // -1: none
    UnpackDirectory directory_;
    std::function<void(std::uint64_t)> onBytes_ = [](std::uint64_t) {};
};
