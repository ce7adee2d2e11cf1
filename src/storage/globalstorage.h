// What the operator's choices leave behind: the path of the serial number file and the flash
// address of serial numbers, kept in the file "global_storage" of the current directory. Carries
// the pool of serial numbers, the count of burns and their record for both burn pages.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "storage/productionrecord.h"
#include "storage/serialnumfile.h"

class ArchiveReader;
class ArchiveWriter;

// The path belongs to the user-interface thread; all other members may be used by any thread.
class GlobalStorage {
  public:
    // The one of the process.
    static GlobalStorage& getInstance();

    GlobalStorage() = default;

    SerialNumFile& getSnFile() { return snFile_; }
    ProductionRecord& getRecord() { return record_; }

    // The last serial number file that was imported with success. The setters change the memory
    // only; the caller saves.
    std::wstring getSnFilePath() const { return snFilePath_; }
    void setSnFilePath(const std::wstring& path) { snFilePath_ = path; }

    // Where in a device's flash its serial number is written.
    std::uint32_t getSnBurnAddr() const { return snBurnAddr_; }
    void setSnBurnAddr(std::uint32_t address) { snBurnAddr_ = address; }

    // Successful burns since the program started, on both pages together.
    std::uint32_t getFlashCount() const { return flashCount_; }
    // The new count.
    std::uint32_t increaseFlashCount() { return ++flashCount_; }

    // Reads the file; without one the values stay. A file that is cut off or cannot be read is
    // deleted: false, and what was read up to the damage is kept.
    bool load();

    // Replaces the file as a whole. False if that failed; the old file is then still there.
    bool save() const;

    void Serialize(ArchiveReader& archive);
    void Serialize(ArchiveWriter& archive) const;

  private:
    SerialNumFile snFile_;
    ProductionRecord record_;
    std::wstring snFilePath_;
    std::atomic<std::uint32_t> snBurnAddr_{0x7FF004};  // 4 bytes behind "config.bin"
    std::atomic<std::uint32_t> flashCount_{0};
};
