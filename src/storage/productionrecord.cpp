#include "storage/productionrecord.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "platform/clock.h"
#include "utils/fileutil.h"
#include "utils/text.h"

namespace {

constexpr std::string_view kFile = "log\\record.csv";
constexpr std::string_view kTornRows = "log\\record.torn";
constexpr const char* kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kLongestRow = std::size_t{64} << 10;  // bytes, far above any

std::string monthOf(const std::tm& time) {
    char text[16];
    return {text, std::strftime(text, sizeof text, "%Y-%m", &time)};
}

// ISO 8601 with the zone, as in 2026-03-09T08:05:00+08:00.
std::string timeOf(const std::tm& time) {
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &time);
    return std::string(text, length).insert(length - 2, ":");
}

// Line ends would end the row, and other control characters may end a spreadsheet program.
std::string inQuotes(std::string_view field) {
    std::string text = "\"";
    for (const char c : field) {
        if (c == '"')
            text += '"';
        text += c >= '\0' && c < ' ' ? ' ' : c;
    }
    return text + '"';
}

std::string rowOf(std::initializer_list<std::string> fields) {
    std::string row;
    for (const std::string& field : fields)
        row += (row.empty() ? "" : ",") + inQuotes(field);
    return row + "\r\n";
}

std::string header() {
    return rowOf({"时间", "方式", "端口", "标签", "固件包", "固件包SHA-256", "SN号", "SN烧录地址",
                  "结果", "最后状态", "用时（秒）"});
}

std::string rowOf(const BurnEnd& end, const std::tm& time) {
    char address[16] = "";
    if (!end.sn.empty())
        std::snprintf(address, sizeof address, "0x%x", end.snAddress);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f",
                  std::chrono::duration<double>(end.duration).count());
    return rowOf({timeOf(time), end.road == BurnEnd::Road::kUsb ? "USB" : "串口", end.place,
                  text::narrow(end.label), text::narrow(end.package.path), end.package.sha256,
                  end.sn, address, end.good ? "成功" : "失败", text::narrow(end.tileText),
                  seconds});
}

// A program that was killed, or a full disk, may have left half a row, in which what follows would
// be lost: it goes to a file of its own. Why not, if it could not.
std::string setAsideTornRow(const platform::File& file) {
    const std::optional<platform::File::Stamp> stamp = file.stamp();
    if (!stamp)
        return platform::lastErrorText();
    std::string tail(std::min<std::uint64_t>(stamp->size, kLongestRow), '\0');
    if (file.readAt(stamp->size - tail.size(), tail.data(), tail.size()) != tail.size())
        return platform::lastErrorText();
    tail.erase(0, tail.rfind('\n') + 1);  // all of it stays if there is no line end
    if (tail.empty())
        return {};
    platform::File aside;
    if (!aside.openOrCreate(fileutil::nativePath(kTornRows)))
        return platform::lastErrorText();
    const std::optional<platform::File::Stamp> before = aside.stamp();
    if (!before || !aside.writeAt(before->size, tail + "\r\n") || !aside.syncData() ||
        !file.truncate(stamp->size - tail.size()))
        return platform::lastErrorText();
    return {};
}

// Of the first row, as in "2026-03"; empty if it tells none, or there is none.
std::string firstMonthOf(const platform::File& file) {
    std::string head(1024, '\0');
    head.resize(file.readAt(0, head.data(), head.size()).value_or(0));
    std::size_t row = head.find('\n');
    if (row == std::string::npos)
        return {};
    row += head.compare(row + 1, 1, "\"") == 0 ? 2 : 1;
    const std::string month = head.substr(row, 7);
    std::string shape = month;
    std::replace_if(
        shape.begin(), shape.end(), [](char c) { return c >= '0' && c <= '9'; }, '0');
    return shape == "0000-00" ? month : std::string();
}

}  // namespace

std::string ProductionRecord::append(const BurnEnd& end) {
    const std::tm now =
        platform::localTime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    std::shared_ptr<const platform::File> file;
    {
        const std::lock_guard guard(lock_);
        std::string reason = openFor(monthOf(now));
        if (reason.empty())
            reason = write(rowOf(end, now));
        if (!reason.empty())
            return reason;
        file = file_;
    }
    // Outside the lock, so that nobody waits for another's disk.
    if (end.good && !file->syncData())
        return platform::lastErrorText();
    return {};
}

std::string ProductionRecord::openFor(const std::string& month) {
    // Somebody may have put the file away.
    if (file_ != nullptr && !file_->isFileAt(fileutil::nativePath(kFile)))
        file_.reset();
    std::string reason = file_ == nullptr ? open() : std::string();
    if (reason.empty() && !month_.empty() && month_ != month && putAway())
        reason = open();
    month_ = month;
    return reason;
}

std::string ProductionRecord::open() {
    file_.reset();
    fileutil::createDirectories(L"log\\");
    const auto file = std::make_shared<platform::File>();
    if (!file->openOrCreate(fileutil::nativePath(kFile)))
        return platform::lastErrorText();
    if (file->lockExclusively() == platform::File::Lock::kHeldElsewhere)
        return "another copy of the program writes to it";
    std::string reason = setAsideTornRow(*file);
    if (reason.empty()) {
        month_ = firstMonthOf(*file);
        file_ = file;
    }
    return reason;
}

// The file's rows stay, under the name of their month. A clock that was wrong for a while may bring
// a month back. If it fails the file goes on with the new month.
bool ProductionRecord::putAway() const {
    const std::string stem = "log\\record-" + month_;
    std::string name = stem + ".csv";
    for (int more = 2; fileutil::fileExists(text::widen(name)); ++more)
        name = stem + "-" + std::to_string(more) + ".csv";
    return fileutil::movePath(kFile, name);
}

std::string ProductionRecord::write(const std::string& row) {
    const std::optional<platform::File::Stamp> before = file_->stamp();
    if (!before)
        return platform::lastErrorText();
    if (file_->writeAt(before->size, before->size == 0 ? kByteOrderMark + header() + row : row))
        return {};
    std::string reason = platform::lastErrorText();
    // What is left of the row is cut off now, or set aside with the next one.
    if (!file_->truncate(before->size))
        file_.reset();
    return reason;
}
