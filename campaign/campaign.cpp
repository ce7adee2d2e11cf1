#include "campaign/campaign.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <utility>

#include "storage/globalstorage.h"
#include "storage/snreservation.h"
#include "storage/usbtagmap.h"
#include "utils/text.h"

using namespace std::chrono_literals;
using simulator::sampleBytes;
using simulator::SamplePackage;

namespace campaign {
namespace {

const QString kStart = QStringLiteral("开始烧录");
const QString kStop = QStringLiteral("停止烧录");
const QString kImport = QStringLiteral("导入SN");
const QString kImported = QStringLiteral("导入成功");
const QString kChoose = QStringLiteral("选择固件");
const QString kSuccess = QStringLiteral("烧录成功！");

constexpr int kMomentsOfADay = 2500;
constexpr int kMomentsOfHardship = 150;
// Of real time, on a machine that does other things too.
constexpr auto kPatience = 120s;
// Of threads and descriptors: caches of the libraries below.
constexpr std::size_t kGrowthThatPasses = 8;
// Of the heap: what one day needs more than another, and what the campaign itself remembers of a
// burn.
constexpr std::size_t kHeapThatPassesKiB = 4096;
constexpr std::size_t kBurnsRememberedInKiB = 5;

// The steady clock leaps; this one shows what time it is.
std::chrono::system_clock::time_point realTime() {
    return std::chrono::system_clock::now();
}

std::string inCurrentDirectory(const std::string& name) {
    return (std::filesystem::current_path() / name).string();
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::set<std::string> freeNumbers() {
    std::set<std::string> numbers;
    std::vector<SnReservation> drawn;  // all at once, and back with it
    for (;;) {
        SnReservation next(GlobalStorage::getInstance().getSnFile());
        if (!next)
            return numbers;
        numbers.insert(next.sn());
        drawn.push_back(std::move(next));
    }
}

}  // namespace

Campaign::Campaign(std::uint32_t seed, Weather weather, std::vector<Road*> roads)
    : dice_(seed), weather_(weather), roads_(std::move(roads)), answers_(dice_) {
    std::filesystem::create_directories("ramloader");
    const auto proxy = sampleBytes(seed, 5000);
    write("ramloader/flash_proxy.img", std::string(proxy.begin(), proxy.end()));
    openWindow();
}

Campaign::~Campaign() {
    closeWindow();
}

void Campaign::openWindow() {
    window_ = std::make_unique<CVorlanFactoryToolDlg>();
    window_->OnInitDialog();
    hands_ = std::make_unique<simulator::WindowOperator>(*window_);
    hj::setLogPrinter(&ledger_);
}

// What the process remembers goes with it.
void Campaign::restartProgram() {
    hands_.reset();
    window_.reset();
    GlobalStorage::getInstance().getSnFile().startAfresh();
    openWindow();
}

void Campaign::playDay() {
    Road& road = *roads_[days_++ % roads_.size()];
    prepareDay(road);
    start(road);
    for (moment_ = 0; moment_ < kMomentsOfADay; ++moment_) {
        playSockets(road);
        if (hardship_ != nullptr && moment_ >= hardshipEnds_)
            endHardship();
        if (weather_ == Weather::kStorm)
            playOperator(road);
        if (moment_ % 16 == 0)
            checkTiles();
        live();
    }
    if (hardship_ != nullptr)
        endHardship();
    finishDay(road);
}

void Campaign::playUntilKilled(const std::string& listPath, const std::string& witnessPath) {
    ledger_.testifyTo(witnessPath);
    listPath_ = listPath;
    untilKilled_ = true;
    Road& road = *roads_.front();
    press(road.page());
    if (GlobalStorage::getInstance().getSnFilePath().empty())
        importList();
    if (!hasKeptItsFiles()) {
        ledger_.addFinding("the settings or the labels are lost");
        return;
    }
    choosePackage();
    start(road);
    for (;;) {
        playSockets(road);
        playOperator(road);
        if (dice_.chance(2))
            hands_->press(QStringLiteral("保存标签"));  // of the USB page
        live();
    }
}

bool Campaign::hasKeptItsFiles() const {
    const GlobalStorage& storage = GlobalStorage::getInstance();
    return storage.getSnFilePath() == text::widen(listPath_) &&
           GlobalStorage::getInstance().getSnFile().isLoaded() != 0 &&
           (!std::filesystem::exists("tag_map") || UsbTagMap().load());
}

void Campaign::closeWindow() {
    hands_.reset();
    window_.reset();
    hj::clearLogPrinter();
}

void Campaign::prepareDay(Road& road) {
    if (dice_.chance(30))
        restartProgram();
    press(road.page());
    wildness_ = dice_.between(1, 5);
    mayRunOut_ = weather_ == Weather::kStorm && dice_.chance(20);
    std::vector<std::string> numbers(mayRunOut_ ? dice_.between(1, 40) : 3000);
    listAtImport_.clear();
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        char number[32];
        std::snprintf(number, sizeof number, "VRL%05zu%06zu", days_, i);
        numbers[i] = number;
        listAtImport_ += numbers[i] + ",0\r\n";
    }
    listPath_ = inCurrentDirectory("numbers-" + std::to_string(days_ % 4) + ".csv");
    std::filesystem::remove(listPath_);
    write(listPath_, listAtImport_);
    choosePackage();
    ledger_.useList(std::move(numbers));
    importList();
}

// Sizes that end within a block, at its end, and just behind it.
void Campaign::choosePackage() {
    const std::vector<std::uint32_t> sizes{1, 4095, 4096, 4097, 8192, 9000, 16'500};
    const auto bytes = [&] { return sampleBytes(dice_.below(1000), dice_.pick(sizes)); };
    const auto package = std::make_shared<SamplePackage>(
        std::vector<simulator::SampleImage>{
            {"flashboot.bin", 0x0, bytes()},
            {"master.bin", 0x10000, bytes()},
            {"config.bin", 0x7FF000, sampleBytes(dice_.below(9), 3000)},
            {"voice.bin", 0x3C0000, bytes()}},
        bytes(), R"({"burn_items": [{"name": "voice.bin", "addr": "0x3C0000"}]})");
    const std::string path = inCurrentDirectory("package.vrk");
    if (!package->writeZip(path))
        ledger_.addFinding("the package cannot be written");
    ledger_.usePackage(package);
    answers_.choose(QString::fromStdString(path));
    press(kChoose);
}

void Campaign::importList() {
    answers_.choose(QString::fromStdString(listPath_));
    const int before = answers_.shown(kImported);
    press(kImport);
    // It may be refused while a run that was stopped still holds a number.
    if (answers_.shown(kImported) > before)
        touched_ = false;
}

void Campaign::playSockets(Road& road) {
    for (std::size_t i = 0; i < Road::kSockets; ++i)
        playSocket(road, i);
}

void Campaign::playSocket(Road& road, std::size_t number) {
    Socket& socket = sockets_[number];
    if (socket.state != Socket::State::kEmpty)
        takeEnds(road, number);
    switch (socket.state) {
        case Socket::State::kEmpty:
            if (dice_.chance(20))
                plugNew(road, number);
            break;
        case Socket::State::kBurning:
            if (weather_ == Weather::kStorm && dice_.below(10'000) < 3 * wildness_)
                unplug(road, number);
            else if (realTime() - socket.since > kPatience && isBurning() && !socket.disturbed)
                judgeEnd(road, number);
            break;
        case Socket::State::kEnded:
            if (!socket.disturbed && socket.end.good && !tileTells(road, number) &&
                road.isPlugged(number)) {
                if (realTime() - socket.since > kPatience)
                    judgeEnd(road, number);
            } else if (dice_.chance(30)) {
                unplug(road, number);
            } else if (dice_.chance(2)) {
                unplug(road, number);
                plugAgain(road, number);
            }
            break;
    }
}

void Campaign::playOperator(Road& road) {
    const std::uint32_t deed = dice_.below(6000 / wildness_);
    if (deed < 4) {
        stop(road);
        if (dice_.chance(30) || touched_)
            importList();
        if (dice_.chance(20) && hardship_ == nullptr) {
            // A flash keeps what an older package has put where the new one has nothing.
            unplugAll(road);
            choosePackage();
        }
        start(road);
    } else if (deed < 7) {
        leavePageAndReturn(road);
    } else if (deed < 9) {
        answers_.choose(QString::fromStdString(listPath_));
        press(kImport);  // must wait for the end of burning
        answers_.choose({});
    } else if (deed < 11) {
        if (!untilKilled_ && hardship_ == nullptr)
            touchList();
    } else if (deed < 15) {
        resetHub(road);
    } else if (deed < 18 && !untilKilled_ && hardship_ == nullptr) {
        beginHardship(road);
    } else if (deed < 20 && !untilKilled_ && hardship_ == nullptr && !ledger_.isListTouched()) {
        closeInMidBurn(road);
    }
}

// Marks that are lost would come again with the next start: so not with a list that was touched.
void Campaign::closeInMidBurn(Road& road) {
    for (Socket& socket : sockets_)
        socket.disturbed = true;
    const auto before = realTime();
    if (!window_->close())
        return;  // the operator has thought better of it
    noteStop(road, before);
    restartProgram();
    if (GlobalStorage::getInstance().getSnFile().isInUse())
        ledger_.addFinding("a number is held by a program that has ended");
    unplugAll(road);
    press(road.page());
    choosePackage();
    start(road);
}

void Campaign::beginHardship(Road& road) {
    if (dice_.chance(50)) {
        // Marks may be lost, as with another program's hands on the list.
        ledger_.listWasTouched();
        touched_ = true;
        hardship_ = Hardship::fullDisk(dice_.below(3000));
    } else {
        hardship_ = Hardship::lostDirectory(road.unpackDirectory());
    }
    hardshipEnds_ = moment_ + kMomentsOfHardship;
    for (Socket& socket : sockets_)
        socket.disturbed = true;
}

void Campaign::endHardship() {
    hardship_.reset();
    // What has begun in hard times may still fail.
    for (Socket& socket : sockets_)
        socket.disturbed = true;
}

// Eight sockets at once lose their devices, and get them back in another order.
void Campaign::resetHub(Road& road) {
    const std::size_t first = dice_.chance(50) ? 0 : Road::kSockets / 2;
    std::vector<std::size_t> lost;
    for (std::size_t i = first; i < first + Road::kSockets / 2; ++i) {
        if (sockets_[i].state == Socket::State::kEmpty)
            continue;
        unplug(road, i);
        lost.push_back(i);
    }
    if (dice_.chance(50))
        live();
    for (; !lost.empty(); lost.pop_back()) {
        std::swap(lost[dice_.below(static_cast<std::uint32_t>(lost.size()))], lost.back());
        plugAgain(road, lost.back());
    }
}

void Campaign::leavePageAndReturn(Road& road) {
    for (Socket& socket : sockets_)
        socket.disturbed = true;
    press(dice_.chance(50) ? QStringLiteral("主页") : dice_.pick(roads_)->page());
    live();
    press(road.page());
    if (!isBurning())
        start(road);
}

// What a spreadsheet, an editor or a backup tool does to a file.
void Campaign::touchList() {
    const std::string now = contentOf(listPath_);
    ledger_.listWasTouched();
    touched_ = true;
    switch (dice_.below(3)) {
        case 0:
            write(listPath_, now);
            break;
        case 1:
            write(listPath_ + ".new", now);
            std::filesystem::rename(listPath_ + ".new", listPath_);
            break;
        default:
            write(listPath_, listAtImport_);
    }
}

void Campaign::plugNew(Road& road, std::size_t number) {
    sockets_[number].restarted = false;
    sockets_[number].clean = weather_ == Weather::kCalm || dice_.chance(90 - 15 * wildness_);
    road.makeDevice(number, dice_, !sockets_[number].clean);
    ledger_.plugged(road.place(number), road.flash(number));
    powerOn(road, number);
}

void Campaign::plugAgain(Road& road, std::size_t number) {
    powerOn(road, number);
}

void Campaign::powerOn(Road& road, std::size_t number) {
    Socket& socket = sockets_[number];
    takeEnds(road, number);
    socket.state = Socket::State::kBurning;
    socket.followsABurn = socket.staleEnd;
    socket.started = isBurning();
    socket.disturbed = hardship_ != nullptr;
    socket.since = realTime();
    road.plug(number);
}

void Campaign::unplug(Road& road, std::size_t number) {
    Socket& socket = sockets_[number];
    takeEnds(road, number);
    socket.staleEnd = socket.state == Socket::State::kBurning || socket.disturbed;
    socket.disturbed = true;
    socket.state = Socket::State::kEmpty;
    road.unplug(number);
    // A device that lies is answered wrongly, and so is one that was not in its ROM loader when
    // burning began.
    if (!socket.clean || socket.restarted)
        return;
    for (const std::string& breach : road.breaches(number)) {
        // A burn knows its device by the port's name only, so that one that comes at once behind
        // another may hear a last word to that one.
        if (socket.followsABurn && breach == "ROM loader: a command record in the ROM stage")
            continue;
        ledger_.addFinding(road.place(number) + ": the device complains: " + breach);
    }
}

void Campaign::unplugAll(Road& road) {
    for (std::size_t i = 0; i < Road::kSockets; ++i) {
        if (sockets_[i].state != Socket::State::kEmpty)
            unplug(road, i);
        sockets_[i].staleEnd = true;
    }
}

void Campaign::takeEnds(Road& road, std::size_t number) {
    Socket& socket = sockets_[number];
    for (const ToldEnd& end : ledger_.takeEnds(road.place(number))) {
        // Nobody has stopped this one: a burn of before is told of. Should there be none, the one
        // of now is found never to end.
        if (end.outcome.find(": stopped") != std::string::npos && !socket.disturbed)
            continue;
        const bool stale = std::exchange(socket.staleEnd, false) && !end.good;
        if (stale)
            socket.disturbed = true;  // nobody can tell whose end this is
        if (stale || socket.state == Socket::State::kEmpty)
            continue;
        socket.state = Socket::State::kEnded;
        socket.end = end;
        socket.since = realTime();
        if (!end.good)
            judgeEnd(road, number);
    }
    // It has left by itself: its port goes too.
    if (socket.state != Socket::State::kEmpty && !road.isPlugged(number)) {
        socket.disturbed = true;
        road.unplug(number);
    }
}

// What cannot be right with a device that has no faults and that nobody has disturbed.
void Campaign::judgeEnd(Road& road, std::size_t number) {
    const Socket& socket = sockets_[number];
    const std::string who = road.place(number) + ": ";
    if (socket.disturbed)
        return;
    if (socket.state == Socket::State::kBurning)
        ledger_.addFinding(who + (socket.clean ? "a good" : "a bad") +
                           " device never ends, its tile reads: " + tileOf(road, number));
    else if (!socket.end.good && socket.clean && !mayRunOut_ && !touched_)
        ledger_.addFinding(who + "a good device is not burned: " + socket.end.outcome);
    else if (socket.end.good)
        ledger_.addFinding(who + "the tile does not tell of SN=" + socket.end.sn);
    sockets_[number].disturbed = true;  // once is enough
}

std::string Campaign::tileOf(const Road& road, std::size_t number) const {
    return hands_->tileNamed(QString::fromStdString(road.place(number))).status.toStdString();
}

bool Campaign::tileTells(const Road& road, std::size_t number) const {
    const std::string& sn = sockets_[number].end.sn;
    return tileOf(road, number) == kSuccess.toStdString() + (sn.empty() ? sn : "SN=" + sn);
}

bool Campaign::isBurning() const {
    return hands_->isEnabled(kStop);
}

void Campaign::start(Road& /*road*/) {
    press(kStart);
    for (Socket& socket : sockets_) {
        if (socket.state == Socket::State::kEmpty)
            continue;
        socket.restarted = socket.started;
        socket.disturbed = socket.disturbed || socket.started;
        socket.started = true;
        socket.since = realTime();
    }
    if (!isBurning())
        ledger_.addFinding("burning does not start");
}

void Campaign::stop(Road& road) {
    for (Socket& socket : sockets_)
        socket.disturbed = true;
    std::jthread pulling;  // while the program stops
    if (weather_ == Weather::kStorm && dice_.chance(40))
        pulling = std::jthread([&road, first = dice_.below(Road::kSockets / 2)] {
            for (std::size_t i = first; i < first + Road::kSockets / 2; ++i) {
                if (road.isPlugged(i))
                    road.unplug(i);
            }
        });
    const auto before = realTime();
    press(kStop);
    noteStop(road, before);
}

void Campaign::noteStop(const Road& road, std::chrono::system_clock::time_point before) {
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(realTime() - before);
    long& longest = longestStops_[road.page()];
    longest = std::max<long>(longest, took.count());
}

void Campaign::finishDay(Road& road) {
    const auto ended = [&](std::size_t number) {
        takeEnds(road, number);
        return sockets_[number].state != Socket::State::kBurning || sockets_[number].disturbed;
    };
    liveUntil([&] {
        std::size_t count = 0;
        for (std::size_t i = 0; i < Road::kSockets; ++i)
            count += ended(i) ? 1 : 0;
        return count == Road::kSockets;
    });
    for (std::size_t i = 0; i < Road::kSockets; ++i) {
        if (!ended(i))
            judgeEnd(road, i);
    }
    checkTiles();
    stop(road);
    unplugAll(road);
    if (!liveUntil([] { return !GlobalStorage::getInstance().getSnFile().isInUse(); }))
        ledger_.addFinding("a number is still held long after the stop");
    if (touched_)
        importList();  // marks that are gone are told now, if not before
    else if (!ledger_.isListTouched() && dice_.chance(30))
        restartProgram();  // it finds the marks in the file, and nowhere else
    ledger_.checkList(listPath_, freeNumbers());
    std::vector<std::string> others;
    liveUntil([&] { return (others = ledger_.readRecord()).empty(); });
    for (const std::string& other : others)
        ledger_.addFinding("the record: " + other);
    for (const std::string& breach : road.breaches())
        ledger_.addFinding("on the way to the devices: " + breach);
    checkFootprint();
}

// No tile tells of a success that was none.
void Campaign::checkTiles() {
    for (const simulator::TileView& tile : hands_->tiles()) {
        const QString text = kSuccess + QStringLiteral("SN=");
        if (tile.status.startsWith(text) && !liveUntil([&] {
                return ledger_.isBurned(tile.status.mid(text.size()).toStdString());
            }))
            ledger_.addFinding("a tile tells of a burn that was none: " +
                               tile.status.toStdString());
    }
}

void Campaign::checkFootprint() {
    const Footprint now = footprint();
    if (days_ <= 2 * roads_.size()) {
        first_.threads = std::max(first_.threads, now.threads);
        first_.descriptors = std::max(first_.descriptors, now.descriptors);
        first_.heapKiB = std::max(first_.heapKiB, now.heapKiB);
        return;
    }
    if (now.heapKiB > first_.heapKiB + kHeapThatPassesKiB + burns() / kBurnsRememberedInKiB)
        ledger_.addFinding("heap: " + std::to_string(now.heapKiB) + " KiB");
    if (now.threads > first_.threads + kGrowthThatPasses)
        ledger_.addFinding("threads: " + std::to_string(now.threads));
    if (now.descriptors > first_.descriptors + kGrowthThatPasses)
        ledger_.addFinding("descriptors: " + std::to_string(now.descriptors));
}

void Campaign::press(const QString& text) {
    if (!hands_->press(text))
        ledger_.addFinding("cannot press " + text.toStdString());
}

void Campaign::live() {
    const timespec moment{0, 1'000'000};
    ::nanosleep(&moment, nullptr);
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

bool Campaign::liveUntil(const std::function<bool()>& condition) {
    const auto limit = realTime() + kPatience;
    while (!condition()) {
        if (realTime() > limit)
            return false;
        live();
    }
    return true;
}

}  // namespace campaign
