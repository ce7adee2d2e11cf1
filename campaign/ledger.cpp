#include "campaign/ledger.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include "storage/globalstorage.h"

namespace campaign {
namespace {

constexpr const char* kRecord = "log/record.csv";
constexpr std::size_t kRemembered = 3;  // packages, and devices of a place

// The text between the two, or behind the first if the second is empty; empty if there is none.
std::string between(const std::string& line, const std::string& first, const std::string& second) {
    std::size_t begin = line.find(first);
    if (begin == std::string::npos)
        return {};
    begin += first.size();
    return second.empty() ? line.substr(begin)
                          : line.substr(begin, line.find(second, begin) - begin);
}

}  // namespace

Ledger::Ledger() {
    std::error_code none;
    const std::uintmax_t size = std::filesystem::file_size(kRecord, none);
    recordRead_ = none ? 0 : size;
}

void Ledger::usePackage(std::shared_ptr<const simulator::SamplePackage> package) {
    const std::lock_guard guard(lock_);
    packages_.push_front(std::move(package));
    if (packages_.size() > kRemembered)
        packages_.pop_back();
}

void Ledger::plugged(const std::string& place, std::shared_ptr<const simulator::Flash> flash) {
    const std::lock_guard guard(lock_);
    auto& flashes = flashes_[place];
    flashes.push_front(std::move(flash));
    if (flashes.size() > kRemembered)
        flashes.pop_back();
}

void Ledger::useList(std::vector<std::string> numbers) {
    const std::lock_guard guard(lock_);
    numbers_ = std::move(numbers);
    touched_ = false;
    toldLost_ = false;
}

void Ledger::listWasTouched() {
    const std::lock_guard guard(lock_);
    touched_ = true;
}

bool Ledger::isListTouched() const {
    const std::lock_guard guard(lock_);
    return touched_;
}

void Ledger::checkList(const std::string& path, const std::set<std::string>& freeNumbers) {
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    const std::lock_guard guard(lock_);
    const auto tell = [&](const char* what, const std::string& number) {
        std::string text = path;
        text.append(": ").append(what).append(": ").append(number);
        find(text);
    };
    std::size_t offset = 0;
    for (const std::string& number : numbers_) {
        const std::string row = content.substr(std::min(offset, content.size()), number.size() + 4);
        const bool marked = row == number + ",1\r\n";
        if (!marked && row != number + ",0\r\n") {
            tell("not its row any more", number);
            return;
        }
        offset += row.size();
        const bool burned = burned_.contains(number);
        const bool free = freeNumbers.contains(number);
        if (marked && !burned)
            tell("marked, but no device confirmed it", number);
        if (burned && !marked && !(touched_ && (toldLost_ || toldUnmarked_.contains(number))))
            tell("in a device, but not marked", number);
        if (burned && free)
            tell("in a device, and still free", number);
        if (!burned && !free && !touched_)
            tell("in no device, and not free", number);
    }
    if (offset != content.size())
        find(path + ": has grown");
}

std::vector<std::string> Ledger::readRecord() {
    std::ifstream file(kRecord, std::ios::binary);
    const std::lock_guard guard(lock_);
    file.seekg(static_cast<std::streamoff>(recordRead_));
    for (std::string row; std::getline(file, row) && !file.eof();) {
        if (recordRead_ > 0)
            takeRow(row);
        recordRead_ += row.size() + 1;
    }
    std::vector<std::string> others;
    for (const auto& [burn, ends] : unrecorded_)
        others.push_back((ends > 0 ? "no row: " : "no end: ") + burn);
    return others;
}

std::vector<ToldEnd> Ledger::takeEnds(const std::string& place) {
    const std::lock_guard guard(lock_);
    return std::exchange(ends_[place], {});
}

bool Ledger::isBurned(const std::string& sn) const {
    const std::lock_guard guard(lock_);
    return burned_.contains(sn);
}

void Ledger::addFinding(const std::string& finding) {
    const std::lock_guard guard(lock_);
    find(finding);
}

std::vector<std::string> Ledger::findings() const {
    const std::lock_guard guard(lock_);
    return findings_;
}

std::size_t Ledger::goodBurns() const {
    const std::lock_guard guard(lock_);
    return good_;
}

std::size_t Ledger::failedBurns() const {
    const std::lock_guard guard(lock_);
    return failed_;
}

std::map<std::string, std::size_t> Ledger::reasons() const {
    const std::lock_guard guard(lock_);
    return reasons_;
}

// On the thread of the burn, before anybody else can turn to the device.
void Ledger::print(int level, const std::string& line) {
    const std::string message = between(line, "(line ", "");
    const std::lock_guard guard(lock_);
    if (level == hj::kError && message.find(" :not in the record: ") != std::string::npos) {
        toldUnrecorded_.insert(between(message, " :not in the record: ", ", "));
    } else if (level == hj::kInfo && message.find(" :burned: ") != std::string::npos) {
        const std::string place = between(message, " :burned: ", ", ");
        takeGood(place, between(message, ", SN=", ""));
    } else if (level == hj::kError && message.find(" :not burned: ") != std::string::npos) {
        takeFailure(between(message, " :not burned: ", ""));
    } else if (level == hj::kError && message.find(" :SN=") != std::string::npos) {
        toldUnmarked_.insert(between(message, " :SN=", " "));
    } else if (level == hj::kError && message.find(": the marks of ") != std::string::npos) {
        toldLost_ = true;
    }
}

void Ledger::takeEnd(const std::string& place, const std::string& outcome, const std::string& sn) {
    const auto withoutRow = toldUnrecorded_.find(place);
    if (withoutRow == toldUnrecorded_.end())
        count(place, outcome, sn, 1);
    else
        toldUnrecorded_.erase(withoutRow);
}

void Ledger::count(const std::string& place, const std::string& outcome, const std::string& sn,
                   int ends) {
    std::string burn = place;
    burn.append(",").append(outcome).append(",").append(sn);
    if ((unrecorded_[burn] += ends) == 0)
        unrecorded_.erase(burn);
}

void Ledger::takeRow(const std::string& row) {
    std::vector<std::string> fields;
    std::size_t begin = 1;
    for (std::size_t end = 0; (end = row.find("\",\"", begin)) != std::string::npos;
         begin = end + 3)
        fields.push_back(row.substr(begin, end - begin));
    if (fields.size() != 10 || !row.starts_with('"') || !row.ends_with("\"\r")) {
        find("no row of the record: " + row);
        return;
    }
    const std::string& sn = fields[6];
    const std::string& outcome = fields[8];
    const std::string& tile = fields[9];
    if ((outcome == "成功") != (tile == "烧录成功！" + (sn.empty() ? sn : "SN=" + sn)))
        find("the record contradicts itself: " + row);
    count(fields[2], outcome, sn, -1);
}

void Ledger::testify(const std::string& line) {
    if (witness_.is_open())
        witness_ << line << std::endl;
}

void Ledger::find(const std::string& finding) {
    findings_.push_back(finding);
    testify("finding " + finding);
}

// As in "PLACE, SN=...: why".
void Ledger::takeFailure(const std::string& message) {
    ++failed_;
    const std::string place = message.substr(0, message.find(", "));
    const std::string sn = between(message, ", SN=", ": ");
    if (!sn.empty())
        testify("failed " + sn);
    takeEnd(place, "失败", sn);
    ends_[place].push_back({.outcome = message});
    std::string reason = between(between(message, ", ", ""), ": ", "");
    std::replace_if(
        reason.begin(), reason.end(), [](unsigned char each) { return std::isdigit(each) != 0; },
        '#');
    ++reasons_[reason];
}

void Ledger::takeGood(const std::string& place, const std::string& sn) {
    ++good_;
    testify("good " + sn);
    takeEnd(place, "成功", sn);
    ends_[place].push_back({.good = true, .sn = sn});
    if (!sn.empty() && !burned_.insert(sn).second)
        find("given to two devices: " + sn);
    const std::uint32_t address = GlobalStorage::getInstance().getSnBurnAddr();
    for (const auto& flash : flashes_[place]) {
        for (const auto& package : packages_) {
            if (package->isIn(*flash, sn, address))
                return;
        }
    }
    find("reported as good, but the flash is not as it must be: " + place + ", SN=" + sn);
}

}  // namespace campaign
