// The pool of serial numbers of a production run: a CSV file with one number and its burned flag in
// each row, "NUMBER,0" or "NUMBER,1" with CR LF. Every number goes to exactly one device, and the
// row of a burned one is marked in the file at once, so that the file is the record of what was
// used. All workers of both burn pages draw from here.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file.h"

class SerialNumFile {
  public:
    // One row. Handed out by pointer, best held by an SnReservation; stays valid until the next
    // load. A holder reads `sn` only.
    struct SnRecord {
        std::uint64_t offset = 0;  // of the row's first byte in the file
        std::string sn;            // the first column, any bytes
        std::string burnFlag;      // the second column; "0" is free, "1" is burned, "-" is kept out
        std::uint32_t taken = 0;   // 1 while a worker holds the record

        // Takes the columns out of a row without its line end. False unless there are just two.
        bool parseLine(std::string_view line);

        // The row as it stands in the file, with CR LF.
        std::string toLine() const;
    };

    // A number that is in a device, while its file does not say so.
    struct Unmarked {
        std::string sn;
        std::string reason;
    };

    // What an import has found that the operator should know.
    struct Findings {
        // Rows whose number stands in an earlier row as well: it is handed out once at most, and
        // not at all if one of its rows is marked.
        std::size_t repeatedRows = 0;
        std::size_t firstRepeatedLine = 0;  // from 1 on
        std::string firstRepeated;
        // Free rows of numbers that were seen burned since the program started: somebody has taken
        // their marks back. They stay out of the pool.
        std::size_t lostMarks = 0;
        std::string firstLost;
    };

    SerialNumFile() = default;

    // Opens the file, locks it against a second copy of the program (not against readers) and reads
    // it whole. If it cannot be opened or locked, the file that was loaded before stays in use. If
    // it cannot be read or a row is not in the format, nothing is loaded afterwards. To be called
    // while nothing is burning. An interruption of the calling thread leaves everything as it was.
    // False if the file is not loaded; the run log says why. A byte order mark at
    // the file's start belongs to no row.
    bool load(const std::wstring& path);

    // Of the last load that gave true.
    Findings findings() const;

    // 1 after a load that read the whole file.
    int isLoaded() const { return loaded_; }

    // The first free record of the file, now taken; null if there is none. Waits for no disk.
    SnRecord* takeNext();

    // Records that the number is in a device. The mark is on the disk when this returns, and no
    // other worker has waited for it. If it cannot be written, or someone has replaced or changed
    // the file since it was loaded, the file stays as it is, the run log tells the number, and the
    // number is not handed out any more, also if a later load finds it free.
    //
    // Gives the numbers that are burned and not marked, this one or earlier ones whose marks
    // somebody has written over; each is given and logged once. Empty if all is well.
    std::vector<Unmarked> markBurned(SnRecord* record);

    // Gives the number back: it is free again unless it was burned.
    void releaseRecord(SnRecord* record);

    // Whether a worker holds a record, or marks it: a load would keep its number from being marked.
    // Waits for no disk.
    bool isInUse() const;

    // Forgets all records. This and the next are operations of the pool that no page calls.
    void clearRecords();

    // Ends the use of the file, and with it the marking.
    void closeFile();

    // As when the program starts: without file and records, and without memory of earlier ones.
    void startAfresh();

  private:
    // A mark that was written since the file was loaded.
    struct Mark {
        std::uint64_t offset;
        std::string sn;
        std::string row;  // as it was written
    };

    // The memory of all numbers that were marked in a file, be it by this program or not.
    class SeenBurned {
      public:
        bool has(std::string_view sn) const;
        void add(std::string_view sn) { fresh_.insert(hashOf(sn)); }
        void add(const std::vector<SnRecord>& records);

      private:
        static std::uint64_t hashOf(std::string_view sn) {
            return std::hash<std::string_view>()(sn);
        }

        // Hashes, as there may be millions: a stranger that has the same one stays unused.
        std::vector<std::uint64_t> loaded_;  // in order
        std::set<std::uint64_t> fresh_;
    };

    // A text as result gives the reason of a failure, and is empty for success.
    std::string reload(const std::string& path);
    static std::string readRecords(const platform::File& file, std::vector<SnRecord>& records);
    Findings keepOut(const platform::File& file, std::vector<SnRecord>& records) const;
    static void keepRepeatsOut(const platform::File& file, std::vector<SnRecord>& records,
                               Findings& findings);
    static void logFindings(const std::string& path, const Findings& findings);
    std::string writeMark(const platform::File& file, const std::string& path, const Mark& mark,
                          bool isLast);
    std::vector<Unmarked> takeLostMarks(const platform::File& file);

    // These run under the records' lock.
    void discardRecords();
    bool isAnyTaken() const;
    void keepOut(const std::string& number);
    bool owns(const SnRecord* record) const;

    // Guards what stands on the disk, from the look at a row to its mark. Taken before the other.
    mutable std::mutex diskLock_;
    std::vector<Mark> marks_;                         // of the file in use
    std::optional<platform::File::Stamp> lastStamp_;  // behind the last mark

    // Guards all that follows; nobody waits for a disk under it.
    mutable std::mutex lock_;
    std::atomic<int> loaded_{0};
    std::shared_ptr<platform::File> file_;  // whoever writes keeps it open; null: none
    std::string path_;                      // of the file, native
    std::vector<SnRecord> records_;  // in the order of the file; addresses stay until the next load
    std::size_t firstCandidate_ = 0;  // no record before this one is free
    std::set<std::string> unmarked_;  // numbers that are in devices, but not marked on the disk
    SeenBurned seenBurned_;
    Findings findings_;
    // Lists of earlier loads with a record that a worker still held, kept for that worker's sake.
    std::vector<std::vector<SnRecord>> abandoned_;
};
