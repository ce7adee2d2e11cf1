#include "storage/serialnumfile.h"

#include <algorithm>
#include <array>
#include <exception>
#include <functional>
#include <optional>
#include <utility>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "utils/logutil.h"

#define LOG_TAG "SerialNumFile"

namespace {

constexpr std::string_view kFree = "0";
constexpr std::string_view kBurned = "1";
constexpr std::string_view kKeptOut = "-";  // in memory only: free in the file, and not to be used
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// No row is that long; a line beyond it is that of a file of another kind.
constexpr std::size_t kLineLimit = std::size_t{1} << 20;  // bytes, with the line end

constexpr std::size_t kLinesBetweenLooks = 4096;  // for an interruption

// The lines of a file with their line ends, read in large blocks.
class LineReader {
  public:
    // Begins at the byte `offset`.
    LineReader(const platform::File& file, std::uint64_t offset) : file_(file), position_(offset) {}

    // The next line, good until the next call. Empty at the end of the file or on an error. Of a
    // line above the limit only a piece above it is given.
    std::string_view next() {
        std::size_t searched = start_;
        for (;;) {
            const std::size_t lineFeed = buffer_.find('\n', searched);
            if (lineFeed != std::string::npos)
                return take(lineFeed + 1 - start_);
            buffer_.erase(0, std::exchange(start_, 0));
            searched = buffer_.size();
            if (searched > kLineLimit || !readBlock())
                return take(failed_ ? 0 : buffer_.size());
        }
    }

    bool failed() const { return failed_; }

  private:
    static constexpr std::size_t kBlockSize = 64 * std::size_t{1024};

    std::string_view take(std::size_t size) {
        const std::string_view line = std::string_view(buffer_).substr(start_, size);
        start_ += size;
        return line;
    }

    bool readBlock() {
        const std::size_t old = buffer_.size();
        buffer_.resize(old + kBlockSize);
        const std::optional<std::size_t> count =
            file_.readAt(position_, buffer_.data() + old, kBlockSize);
        failed_ = !count.has_value();
        buffer_.resize(old + count.value_or(0));
        position_ += count.value_or(0);
        return count.value_or(0) > 0;
    }

    const platform::File& file_;
    std::uint64_t position_;  // in the file, behind the buffer's last byte
    std::string buffer_;
    std::size_t start_ = 0;  // of the next line in the buffer
    bool failed_ = false;
};

bool beginsWithByteOrderMark(const platform::File& file) {
    std::array<char, kByteOrderMark.size()> start{};
    return file.readAt(0, start.data(), start.size()) == start.size() &&
           std::string_view(start.data(), start.size()) == kByteOrderMark;
}

// Goes through the rows of a file and calls `visit` with the offset, the text without its line end
// and the number of the line, from 1 on, of each. The reason if a line is not in the format or the
// file cannot be read.
template <typename Visit>
std::string forEachRow(const platform::File& file, const Visit& visit) {
    std::uint64_t offset = beginsWithByteOrderMark(file) ? kByteOrderMark.size() : 0;
    LineReader reader(file, offset);
    std::size_t lineNumber = 1;
    for (std::string_view line = reader.next(); !line.empty(); line = reader.next()) {
        const std::size_t size = line.size();
        if (line.ends_with(kLineEnd))
            line.remove_suffix(kLineEnd.size());
        else if (line.ends_with('\n'))
            return "no CR LF at the end of line " + std::to_string(lineNumber);
        if (size > kLineLimit || (!line.empty() && std::count(line.begin(), line.end(), ',') != 1))
            return "not two columns in line " + std::to_string(lineNumber);
        if (lineNumber % kLinesBetweenLooks == 0 && interruption::requested())
            return "cancelled";
        if (!line.empty())
            visit(offset, line, lineNumber);
        offset += size;
        ++lineNumber;
    }
    return reader.failed() ? platform::lastErrorText() : std::string();
}

// The bytes of the file from `offset` on, at most `size`.
std::string bytesAt(const platform::File& file, std::uint64_t offset, std::size_t size) {
    std::string bytes(size, '\0');
    bytes.resize(file.readAt(offset, bytes.data(), size).value_or(0));
    return bytes;
}

bool standsAt(const platform::File& file, std::uint64_t offset, const std::string& row) {
    return bytesAt(file, offset, row.size()) == row;
}

bool endsWith(const platform::File& file, std::uint64_t offset, const std::string& row) {
    return bytesAt(file, offset, row.size() + 1) == row;
}

}  // namespace

bool SerialNumFile::SnRecord::parseLine(std::string_view line) {
    const std::size_t comma = line.find(',');
    if (comma == std::string_view::npos)
        return false;
    // Made new, not assigned: an assigned string takes more room than it needs, and there may be a
    // million of them.
    sn = std::string(line.substr(0, comma));
    burnFlag = std::string(line.substr(comma + 1));
    return burnFlag.find(',') == std::string::npos;
}

std::string SerialNumFile::SnRecord::toLine() const {
    return sn + "," + burnFlag + std::string(kLineEnd);
}

bool SerialNumFile::SeenBurned::has(std::string_view sn) const {
    const std::uint64_t hash = hashOf(sn);
    return fresh_.count(hash) != 0 || std::binary_search(loaded_.begin(), loaded_.end(), hash);
}

void SerialNumFile::SeenBurned::add(const std::vector<SnRecord>& records) {
    const std::size_t known = loaded_.size();
    for (const SnRecord& record : records) {
        if (record.burnFlag == kBurned && !record.sn.empty())
            loaded_.push_back(hashOf(record.sn));
    }
    const auto middle = loaded_.begin() + static_cast<std::ptrdiff_t>(known);
    std::sort(middle, loaded_.end());
    std::inplace_merge(loaded_.begin(), middle, loaded_.end());
    loaded_.erase(std::unique(loaded_.begin(), loaded_.end()), loaded_.end());
}

bool SerialNumFile::load(const std::wstring& path) {
    const std::string native = fileutil::nativePath(path);
    const std::string problem = reload(native);
    if (problem.empty())
        logFindings(native, findings());
    else
        LOG_E("%s was not loaded: %s", native.c_str(), problem.c_str());
    return problem.empty();
}

SerialNumFile::Findings SerialNumFile::findings() const {
    const std::lock_guard guard(lock_);
    return findings_;
}

void SerialNumFile::logFindings(const std::string& path, const Findings& findings) {
    if (findings.repeatedRows != 0)
        LOG_W("%s: %zu rows repeat a number and are not used, the first is line %zu, SN=%s",
              path.c_str(), findings.repeatedRows, findings.firstRepeatedLine,
              findings.firstRepeated.c_str());
    if (findings.lostMarks != 0)
        LOG_E("%s: the marks of %zu burned numbers are gone, the first is SN=%s: they stay out",
              path.c_str(), findings.lostMarks, findings.firstLost.c_str());
}

SerialNumFile::SnRecord* SerialNumFile::takeNext() {
    const std::lock_guard guard(lock_);
    const auto isFree = [](const SnRecord& record) {
        return record.burnFlag == kFree && record.taken == 0;
    };
    while (firstCandidate_ < records_.size() && !isFree(records_[firstCandidate_]))
        ++firstCandidate_;
    if (firstCandidate_ == records_.size())
        return nullptr;
    SnRecord* const record = &records_[firstCandidate_++];
    record->taken = 1;
    return record;
}

std::vector<SerialNumFile::Unmarked> SerialNumFile::markBurned(SnRecord* record) {
    if (record == nullptr)
        return {};
    std::shared_ptr<platform::File> file;
    std::string path;
    Mark mark;
    bool owned = false;
    bool isLast = false;
    {
        const std::lock_guard guard(lock_);
        if (file_ == nullptr || record->burnFlag != kFree)
            return {};
        file = file_;
        path = path_;
        owned = owns(record);
        isLast = owned && record == &records_.back();
        // It stays taken until its mark is on the disk: no load comes in between.
        record->taken = 1;
        record->burnFlag = kBurned;
        mark = {record->offset, record->sn, record->toLine()};
    }
    std::vector<Unmarked> unmarked;
    std::string problem = "another file has been loaded since";
    if (owned) {
        {
            const std::lock_guard guard(diskLock_);
            unmarked = takeLostMarks(*file);
            problem = writeMark(*file, path, mark, isLast);
        }
        // Outside the locks: sixteen marks may wait for the disk at the same time.
        if (problem.empty() && !file->syncData())
            problem = path + " cannot be written: " + platform::lastErrorText();
    }
    if (!problem.empty())
        unmarked.push_back({mark.sn, problem});
    {
        const std::lock_guard guard(lock_);
        record->taken = 0;
        if (problem.empty())
            seenBurned_.add(mark.sn);
        for (const Unmarked& number : unmarked)
            keepOut(number.sn);
    }
    for (const Unmarked& number : unmarked)
        LOG_E("SN=%s is burned but could not be marked: %s", number.sn.c_str(),
              number.reason.c_str());
    return unmarked;
}

void SerialNumFile::releaseRecord(SnRecord* record) {
    if (record == nullptr)
        return;
    const std::lock_guard guard(lock_);
    if (record->taken == 0 || record->burnFlag != kFree)
        return;
    record->taken = 0;
    if (owns(record))
        firstCandidate_ =
            std::min(firstCandidate_, static_cast<std::size_t>(record - records_.data()));
}

bool SerialNumFile::isInUse() const {
    const std::lock_guard guard(lock_);
    return isAnyTaken();
}

void SerialNumFile::clearRecords() {
    const std::lock_guard guard(lock_);
    discardRecords();
}

void SerialNumFile::closeFile() {
    const std::lock_guard guard(lock_);
    file_.reset();
}

void SerialNumFile::startAfresh() {
    const std::scoped_lock guard(diskLock_, lock_);
    discardRecords();
    file_.reset();
    loaded_ = 0;
    marks_.clear();
    unmarked_.clear();
    seenBurned_ = SeenBurned();
    findings_ = Findings();
}

std::string SerialNumFile::reload(const std::string& path) {
    auto file = std::make_shared<platform::File>();
    if (!file->openExisting(path))
        return platform::lastErrorText();
    const std::lock_guard disk(diskLock_);
    {
        const std::lock_guard guard(lock_);
        // The file that is open already has our own lock, which a second opening would run into.
        if (file_ != nullptr && file_->isSameFile(*file))
            file = file_;
    }
    if (file.use_count() == 1) {
        const platform::File::Lock lock = file->lockExclusively();
        if (lock == platform::File::Lock::kHeldElsewhere)
            return "in use by another program";
        if (lock != platform::File::Lock::kTaken)
            return "cannot be locked: " + platform::lastErrorText();
    }
    std::vector<SnRecord> records;
    std::string problem = readRecords(*file, records);
    if (!problem.empty() && interruption::requested())
        return problem;
    const std::lock_guard guard(lock_);
    discardRecords();
    marks_.clear();
    lastStamp_.reset();
    loaded_ = problem.empty() ? 1 : 0;
    if (!problem.empty()) {
        file_.reset();
        return problem;
    }
    findings_ = keepOut(*file, records);
    seenBurned_.add(records);
    file_ = std::move(file);
    path_ = path;
    records_ = std::move(records);
    return {};
}

std::string SerialNumFile::readRecords(const platform::File& file, std::vector<SnRecord>& records) {
    // The first pass takes hardly any memory, so that a wrong file of any size does no harm.
    std::size_t rows = 0;
    std::string problem =
        forEachRow(file, [&](std::uint64_t, std::string_view, std::size_t) { ++rows; });
    if (!problem.empty())
        return problem;
    try {
        records.reserve(rows);
        return forEachRow(file, [&](std::uint64_t offset, std::string_view row, std::size_t) {
            SnRecord record;
            record.offset = offset;
            record.parseLine(row);
            records.push_back(std::move(record));
        });
    } catch (const std::exception&) {
        return "too large for the memory: " + std::to_string(rows) + " rows";
    }
}

// Keeps numbers that must not be handed out from looking free.
SerialNumFile::Findings SerialNumFile::keepOut(const platform::File& file,
                                               std::vector<SnRecord>& records) const {
    Findings findings;
    keepRepeatsOut(file, records, findings);
    for (SnRecord& record : records) {
        if (record.burnFlag != kFree || record.sn.empty())
            continue;
        const bool lost = seenBurned_.has(record.sn);
        if (lost && ++findings.lostMarks == 1)
            findings.firstLost = record.sn;
        if (lost || unmarked_.count(record.sn) != 0)
            record.burnFlag = kKeptOut;
    }
    return findings;
}

void SerialNumFile::keepRepeatsOut(const platform::File& file, std::vector<SnRecord>& records,
                                   Findings& findings) {
    // Most lists are in order, which tells at once that nothing is repeated.
    const auto isOutOfOrder = [](const SnRecord& a, const SnRecord& b) { return a.sn >= b.sn; };
    if (std::adjacent_find(records.begin(), records.end(), isOutOfOrder) == records.end())
        return;
    std::vector<SnRecord*> byNumber;
    byNumber.reserve(records.size());
    for (SnRecord& record : records) {
        if (!record.sn.empty())
            byNumber.push_back(&record);
    }
    std::sort(byNumber.begin(), byNumber.end(), [](const SnRecord* a, const SnRecord* b) {
        const int order = a->sn.compare(b->sn);
        return order != 0 ? order < 0 : a->offset < b->offset;
    });
    const SnRecord* first = nullptr;
    for (auto begin = byNumber.begin(); begin != byNumber.end();) {
        const auto end = std::find_if(begin, byNumber.end(), [&](const SnRecord* record) {
            return record->sn != (*begin)->sn;
        });
        const bool isMarked = std::any_of(
            begin, end, [](const SnRecord* record) { return record->burnFlag == kBurned; });
        const auto isFree = [](const SnRecord* record) { return record->burnFlag == kFree; };
        auto repeat = isMarked ? begin : std::find_if(begin, end, isFree);
        if (!isMarked && repeat != end)
            ++repeat;
        for (; repeat != end; ++repeat) {
            if (isFree(*repeat))
                (*repeat)->burnFlag = kKeptOut;
        }
        for (auto row = begin + 1; row < end; ++row) {
            ++findings.repeatedRows;
            if (first == nullptr || (*row)->offset < first->offset)
                first = *row;
        }
        begin = end;
    }
    if (first == nullptr)
        return;
    findings.firstRepeated = first->sn;
    forEachRow(file, [&](std::uint64_t offset, std::string_view, std::size_t line) {
        if (offset == first->offset)
            findings.firstRepeatedLine = line;
    });
}

void SerialNumFile::discardRecords() {
    if (isAnyTaken())
        abandoned_.push_back(std::move(records_));
    records_ = std::vector<SnRecord>();
    firstCandidate_ = 0;
}

bool SerialNumFile::isAnyTaken() const {
    return std::any_of(records_.begin(), records_.end(),
                       [](const SnRecord& record) { return record.taken != 0; });
}

void SerialNumFile::keepOut(const std::string& number) {
    if (number.empty())
        return;
    unmarked_.insert(number);
    for (SnRecord& record : records_) {
        if (record.sn == number && record.burnFlag == kFree && record.taken == 0)
            record.burnFlag = kKeptOut;
    }
}

bool SerialNumFile::owns(const SnRecord* record) const {
    const std::less<const SnRecord*> before;
    const SnRecord* const begin = records_.data();
    return !before(record, begin) && before(record, begin + records_.size());
}

// The earlier marks that somebody has written over, each told once. They are looked at only when
// the file has been written to since the last mark.
std::vector<SerialNumFile::Unmarked> SerialNumFile::takeLostMarks(const platform::File& file) {
    std::vector<Unmarked> lost;
    if (marks_.empty() || (lastStamp_ && file.stamp() == lastStamp_))
        return lost;
    std::erase_if(marks_, [&](const Mark& mark) {
        if (standsAt(file, mark.offset, mark.row))
            return false;
        lost.push_back({mark.sn, "somebody has written over its mark"});
        return true;
    });
    return lost;
}

std::string SerialNumFile::writeMark(const platform::File& file, const std::string& path,
                                     const Mark& mark, bool isLast) {
    if (!file.isFileAt(path))
        return path + " was moved or replaced";
    const std::string freeRow = mark.sn + "," + std::string(kFree);
    const bool isThere = standsAt(file, mark.offset, freeRow + std::string(kLineEnd)) ||
                         (isLast && endsWith(file, mark.offset, freeRow));
    if (!isThere)
        return path + " was changed at byte " + std::to_string(mark.offset);
    if (!file.writeAt(mark.offset, mark.row))
        return path + " cannot be written: " + platform::lastErrorText();
    marks_.push_back(mark);
    lastStamp_ = file.stamp();
    return {};
}
