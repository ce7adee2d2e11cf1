#include "storage/serialnumfile.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <optional>
#include <utility>

#include "utils/fileutil.h"
#include "utils/logutil.h"

namespace {

constexpr const char* LOG_TAG = "SerialNumFile";

constexpr std::string_view kFree = "0";
constexpr std::string_view kBurned = "1";
constexpr std::string_view kLineEnd = "\r\n";

// No row is that long; a line beyond it is that of a file of another kind.
constexpr std::size_t kLineLimit = std::size_t{1} << 20;  // bytes, with the line end

// The lines of a file with their line ends, read in large blocks.
class LineReader {
  public:
    explicit LineReader(const platform::File& file) : file_(file) {}

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
    static constexpr std::size_t kBlockSize = 256 * std::size_t{1024};

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
    std::uint64_t position_ = 0;  // in the file, behind the buffer's last byte
    std::string buffer_;
    std::size_t start_ = 0;  // of the next line in the buffer
    bool failed_ = false;
};

// Goes through the rows of a file and calls `visit` with the offset and the text, without its line
// end, of each. The reason if a line is not in the format or the file cannot be read.
template <typename Visit>
std::string forEachRow(const platform::File& file, const Visit& visit) {
    LineReader reader(file);
    std::uint64_t offset = 0;
    std::size_t lineNumber = 1;
    for (std::string_view line = reader.next(); !line.empty(); line = reader.next()) {
        const std::size_t size = line.size();
        if (line.ends_with(kLineEnd))
            line.remove_suffix(kLineEnd.size());
        else if (line.ends_with('\n'))
            return "no CR LF at the end of line " + std::to_string(lineNumber);
        if (size > kLineLimit || (!line.empty() && std::count(line.begin(), line.end(), ',') != 1))
            return "not two columns in line " + std::to_string(lineNumber);
        if (!line.empty())
            visit(offset, line);
        offset += size;
        ++lineNumber;
    }
    return reader.failed() ? platform::lastErrorText() : std::string();
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

bool SerialNumFile::load(const std::wstring& path) {
    const std::string native = fileutil::nativePath(path);
    std::string problem;
    {
        const std::lock_guard guard(lock_);
        problem = reload(native);
    }
    if (!problem.empty())
        LOG_E("%s was not loaded: %s", native.c_str(), problem.c_str());
    return problem.empty();
}

SerialNumFile::SnRecord* SerialNumFile::takeNext() {
    const std::lock_guard guard(lock_);
    SnRecord* record = nullptr;
    if (!released_.empty()) {
        record = *released_.begin();
        released_.erase(released_.begin());
    } else {
        while (firstUntried_ < records_.size() && records_[firstUntried_].burnFlag != kFree)
            ++firstUntried_;
        if (firstUntried_ == records_.size())
            return nullptr;
        record = &records_[firstUntried_++];
    }
    record->taken = 1;
    return record;
}

std::string SerialNumFile::markBurned(SnRecord* record) {
    if (record == nullptr)
        return {};
    std::string number;
    std::string problem;
    {
        const std::lock_guard guard(lock_);
        if (!file_.isOpen() || record->burnFlag != kFree)
            return {};
        number = record->sn;
        const std::string freeRow = record->toLine();
        record->taken = 0;
        record->burnFlag = kBurned;
        released_.erase(record);
        problem = owns(record) ? writeMark(*record, freeRow) : "another file has been loaded since";
        if (!problem.empty())
            keepOut(number);
    }
    if (!problem.empty())
        LOG_E("SN=%s is burned but could not be marked: %s", number.c_str(), problem.c_str());
    return problem;
}

void SerialNumFile::releaseRecord(SnRecord* record) {
    if (record == nullptr)
        return;
    const std::lock_guard guard(lock_);
    if (record->taken == 0)
        return;
    record->taken = 0;
    if (owns(record))
        released_.insert(record);
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
    file_.close();
}

std::string SerialNumFile::reload(const std::string& path) {
    platform::File file;
    if (!file.openExisting(path))
        return platform::lastErrorText();
    // The file that is open already has our own lock, which a second opening would run into.
    if (!file_.isOpen() || !file_.isSameFile(file)) {
        const platform::File::Lock lock = file.lockExclusively();
        if (lock == platform::File::Lock::kHeldElsewhere)
            return "in use by another program";
        if (lock != platform::File::Lock::kTaken)
            return "cannot be locked: " + platform::lastErrorText();
        file_ = std::move(file);
    }
    path_ = path;
    discardRecords();
    std::string problem = readRecords();
    loaded_ = problem.empty() ? 1 : 0;
    if (!problem.empty()) {
        discardRecords();
        file_.close();
    }
    return problem;
}

std::string SerialNumFile::readRecords() {
    // The first pass takes hardly any memory, so that a wrong file of any size does no harm.
    std::size_t rows = 0;
    std::string problem = forEachRow(file_, [&](std::uint64_t, std::string_view) { ++rows; });
    if (!problem.empty())
        return problem;
    try {
        records_.reserve(rows);
    } catch (const std::exception&) {
        return "too large for the memory: " + std::to_string(rows) + " rows";
    }
    return forEachRow(file_, [&](std::uint64_t offset, std::string_view row) {
        SnRecord record;
        record.offset = offset;
        record.parseLine(row);
        if (record.burnFlag == kFree && unmarked_.count(record.sn) != 0)
            record.burnFlag = kBurned;
        records_.push_back(std::move(record));
    });
}

void SerialNumFile::discardRecords() {
    if (isAnyTaken())
        abandoned_.push_back(std::move(records_));
    records_ = std::vector<SnRecord>();
    released_.clear();
    firstUntried_ = 0;
}

bool SerialNumFile::isAnyTaken() const {
    return std::any_of(records_.begin(), records_.end(),
                       [](const SnRecord& record) { return record.taken != 0; });
}

void SerialNumFile::keepOut(const std::string& number) {
    unmarked_.insert(number);
    for (SnRecord& record : records_) {
        if (record.sn == number && record.burnFlag == kFree && record.taken == 0) {
            record.burnFlag = kBurned;
            released_.erase(&record);
        }
    }
}

bool SerialNumFile::owns(const SnRecord* record) const {
    const std::less<const SnRecord*> before;
    const SnRecord* const begin = records_.data();
    return !before(record, begin) && before(record, begin + records_.size());
}

std::string SerialNumFile::writeMark(const SnRecord& record, const std::string& freeRow) {
    if (!file_.isFileAt(path_))
        return path_ + " was moved or replaced";
    if (!isRowOnDisk(record, freeRow))
        return path_ + " was changed at byte " + std::to_string(record.offset);
    if (!file_.writeAt(record.offset, record.toLine()) || !file_.syncData())
        return path_ + " cannot be written: " + platform::lastErrorText();
    return {};
}

bool SerialNumFile::isRowOnDisk(const SnRecord& record, const std::string& row) const {
    std::string bytes(row.size(), '\0');
    bytes.resize(file_.readAt(record.offset, bytes.data(), bytes.size()).value_or(0));
    const bool isLast = &record == &records_.back();
    return bytes == row || (isLast && bytes + std::string(kLineEnd) == row);
}
