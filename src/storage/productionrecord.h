// What a factory is asked for a year later: which number went into which device, when, and from
// which package. One row for each burn that ended, in "log\record.csv". Nobody ever wipes it: with
// the first row of a new month the file becomes "log\record-YYYY-MM.csv", of the month before.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "platform/file.h"

// A firmware package that was burned from.
struct PackageIdentity {
    std::wstring path;
    std::string sha256;  // of the whole file, in hexadecimal digits; empty if it cannot be read
};

// How a burn ended.
struct BurnEnd {
    enum class Road { kUsb, kSerial };

    Road road = Road::kUsb;
    std::string place = {};   // the device's id, or the port's name
    std::wstring label = {};  // of the port
    PackageIdentity package = {};
    std::string sn = {};          // that was drawn for the device; empty if there was none
    std::uint32_t snAddress = 0;  // the number's place in the flash
    bool good = false;            // every image and the number are in the device
    std::string reason = {};      // of a failure, for the run log
    std::wstring tileText = {};   // what the tile told last
    std::chrono::steady_clock::duration duration = {};
};

// The files are UTF-8 with a byte order mark, their rows end in CR LF, and each field stands in
// quotes. All operations may be called from any thread.
class ProductionRecord {
  public:
    // Adds a row, whole or not at all; that of a good burn is on the disk on return. Empty if it
    // was added, else why not.
    std::string append(const BurnEnd& end);

  private:
    std::string openFor(const std::string& month);
    std::string open();
    bool putAway() const;
    std::string write(const std::string& row);

    std::mutex lock_;                             // guards the two
    std::shared_ptr<const platform::File> file_;  // null until it is written to
    std::string month_;                           // of its rows, as in "2026-03"
};
