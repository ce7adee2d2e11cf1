// The pool of serial numbers of a production run: a CSV file with one number and its burned flag in
// each row, "NUMBER,0" or "NUMBER,1" with CR LF. Every number goes to exactly one device, and the
// row of a burned one is marked in the file at once, so that the file is the record of what was
// used. All workers of both burn pages draw from here.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file.h"

class SerialNumFile {
  public:
    // One row. Handed out by pointer; stays valid until the next load. A holder reads `sn` only.
    struct SnRecord {
        std::uint64_t offset = 0;  // of the row's first byte in the file
        std::string sn;            // the first column, any bytes
        std::string burnFlag;      // the second column; "0" is free, "1" is burned
        std::uint32_t taken = 0;   // 1 while a worker holds the record

        // Takes the columns out of a row without its line end. False unless there are just two.
        bool parseLine(std::string_view line);

        // The row as it stands in the file, with CR LF.
        std::string toLine() const;
    };

    SerialNumFile() = default;

    // Opens the file, locks it against a second copy of the program (not against readers) and reads
    // it whole. If it cannot be opened or locked, the file that was loaded before stays in use. If
    // it cannot be read or a row is not in the format, nothing is loaded afterwards. To be called
    // while nothing is burning. False if the file is not loaded; the run log says why.
    bool load(const std::wstring& path);

    // 1 after a load that read the whole file.
    int isLoaded() const { return loaded_; }

    // The first free record of the file, now taken; null if there is none.
    SnRecord* takeNext();

    // Records that the number is in a device. The mark is on the disk when this returns. If it
    // cannot be written, or someone has replaced or changed the file since it was loaded, the file
    // stays as it is, the run log tells the number, and the number is not handed out any more, also
    // if a later load finds it free.
    //
    // Gives the reason why it could not be marked; empty if it is, or if there was nothing to mark.
    std::string markBurned(SnRecord* record);

    // Gives the number back: it is free again unless it was burned.
    void releaseRecord(SnRecord* record);

    // Whether a worker holds a record: a load would keep its number from being marked.
    bool isInUse() const;

    // Forgets all records.
    void clearRecords();

    // Ends the use of the file, and with it the marking.
    void closeFile();

  private:
    // These run under the lock. Those with a text as result give the reason of a failure, empty for
    // success.
    std::string reload(const std::string& path);
    std::string readRecords();
    void discardRecords();
    bool isAnyTaken() const;
    void keepOut(const std::string& number);
    bool owns(const SnRecord* record) const;
    std::string writeMark(const SnRecord& record, const std::string& freeRow);
    bool isRowOnDisk(const SnRecord& record, const std::string& row) const;

    mutable std::mutex lock_;
    std::atomic<int> loaded_{0};
    platform::File file_;
    std::string path_;               // of the file, native
    std::vector<SnRecord> records_;  // in the order of the file; addresses stay until the next load
    std::size_t firstUntried_ = 0;   // no record from here on has been handed out
    std::set<SnRecord*> released_;   // free records before that
    std::set<std::string> unmarked_;  // numbers that are in devices, but not marked on the disk
    // Lists of earlier loads with a record that a worker still held, kept for that worker's sake.
    std::vector<std::vector<SnRecord>> abandoned_;
};
