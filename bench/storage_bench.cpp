// The serial number file at a million rows, and its load from a thousand to ten million. Every
// benchmark checks its budget.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "measure.h"
#include "storage/serialnumfile.h"
#include "utils/text.h"

namespace {

constexpr std::size_t kRows = 1'000'000;
constexpr std::size_t kNumberSize = 20;  // characters of the numbers that the budgets are for

using Clock = std::chrono::steady_clock;

// A file of `rows` free numbers that lives as long as this.
class NumberFile {
  public:
    explicit NumberFile(std::size_t rows = kRows, std::size_t numberSize = kNumberSize)
        : path_(std::filesystem::temp_directory_path() / "vorlan_storage_bench.csv") {
        std::string content;
        content.reserve(rows * (numberSize + 4));
        for (std::size_t i = 0; i < rows; ++i) {
            const std::string count = std::to_string(10'000'000'000 + i);
            content += std::string(numberSize - count.size(), 'V') + count + ",0\r\n";
        }
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~NumberFile() {
        std::error_code error;
        std::filesystem::remove(path_, error);
    }
    NumberFile(const NumberFile&) = delete;
    NumberFile& operator=(const NumberFile&) = delete;

    std::string file() const { return path_.string(); }
    std::wstring path() const { return text::widen(file()); }

  private:
    std::filesystem::path path_;
};

std::size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void load(benchmark::State& state) {
    const auto numberSize = static_cast<std::size_t>(state.range(0));
    const NumberFile source(kRows, numberSize);
    while (state.KeepRunning()) {
        SerialNumFile file;
        const std::size_t before = heapInUse();
        const auto start = Clock::now();
        if (!file.load(source.path()))
            state.SkipWithError("not loaded");
        const double seconds = secondsSince(start);
        const double bytesPerRow = static_cast<double>(heapInUse() - before) / kRows;
        state.counters["bytes_per_row"] = bytesPerRow;
        if (seconds >= 1.0)
            state.SkipWithError("a million rows took a second or more to load");
        // Longer numbers take what they need.
        if (numberSize <= kNumberSize && bytesPerRow > 120)
            state.SkipWithError("more than 120 bytes per row");
    }
}
BENCHMARK(load)->Arg(15)->Arg(kNumberSize)->Arg(32)->Unit(benchmark::kMillisecond);

// A plain read of the file, and its columns.
std::size_t readAndSplit(const std::wstring& path) {
    std::ifstream file(text::narrow(path), std::ios::binary);
    std::vector<std::pair<std::string, std::string>> rows;
    for (std::string line; std::getline(file, line);) {
        const std::size_t comma = line.find(',');
        rows.emplace_back(line.substr(0, comma), line.substr(comma + 1));
    }
    return rows.size();
}

void loadBesidePlainRead(benchmark::State& state) {
    constexpr std::size_t kShortNumber = 15;  // characters
    static Growth growth;
    const auto rows = static_cast<std::size_t>(state.range(0));
    const NumberFile source(rows, kShortNumber);
    std::vector<double> ours;
    std::vector<double> plain;
    std::vector<double> wc;
    double bytesPerRow = 0;
    bool sound = true;
    while (state.KeepRunning()) {
        plain.push_back(secondsOf([&] { sound = readAndSplit(source.path()) == rows && sound; }));
        wc.push_back(secondsOf(
            [&] { sound = runCommand("wc -l " + source.file() + " >/dev/null") && sound; }));
        SerialNumFile file;
        const std::size_t before = heapInUse();
        ours.push_back(secondsOf([&] { sound = file.load(source.path()) && sound; }));
        bytesPerRow = static_cast<double>(heapInUse() - before) / static_cast<double>(rows);
        state.SetIterationTime(ours.back());
    }
    const double ratio = median(ours) / median(plain);
    state.counters["ours_ms"] = 1000 * median(ours);
    state.counters["plain_ms"] = 1000 * median(plain);
    state.counters["wc_ms"] = 1000 * median(wc);
    state.counters["ratio"] = ratio;
    state.counters["bytes_per_row"] = bytesPerRow;
    if (!sound)
        state.SkipWithError("not loaded, or there is no wc");
    else if (ratio > 1.5)
        state.SkipWithError(("over 1.5 times a plain read: " + std::to_string(ratio)).c_str());
    else if (bytesPerRow > 100)
        state.SkipWithError("more than 100 bytes per row");
    else
        growth.check(state, static_cast<double>(rows), median(ours));
}
BENCHMARK(loadBesidePlainRead)
    ->ArgName("rows")
    ->Arg(1000)
    ->Arg(100'000)
    ->Arg(10'000'000)
    ->Iterations(7)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void handOutAll(benchmark::State& state) {
    const NumberFile source;
    while (state.KeepRunning()) {
        SerialNumFile file;
        file.load(source.path());
        const auto start = Clock::now();
        std::size_t handedOut = 0;
        while (file.takeNext() != nullptr)
            ++handedOut;
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        if (handedOut != kRows)
            state.SkipWithError("not every number was handed out");
        if (seconds >= 1.0)
            state.SkipWithError("a million numbers took a second or more to hand out");
    }
}
BENCHMARK(handOutAll)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

// A failed burn gives its number back and the next device gets it, wherever in the file that is.
void releaseAndTake(benchmark::State& state) {
    const auto used = static_cast<std::size_t>(state.range(0));
    const NumberFile source;
    SerialNumFile file;
    file.load(source.path());
    for (std::size_t i = 0; i < used; ++i)
        file.takeNext();
    auto* record = file.takeNext();
    const auto start = Clock::now();
    while (state.KeepRunning()) {
        file.releaseRecord(record);
        benchmark::DoNotOptimize(record = file.takeNext());
    }
    // The few rounds that only find out how many to run say nothing.
    if (state.iterations() >= 1000 &&
        secondsSince(start) / static_cast<double>(state.iterations()) >= 10e-6)
        state.SkipWithError("giving back and drawing again took 10 us or more");
}
BENCHMARK(releaseAndTake)->Arg(0)->Arg(kRows / 2)->Arg(kRows - 1);

// Marks at both ends of the file, by turns, so that both see the same disk.
void markBurned(benchmark::State& state) {
    constexpr std::size_t kMarks = 300;
    const NumberFile source;
    SerialNumFile file;
    file.load(source.path());
    std::vector<SerialNumFile::SnRecord*> records;
    while (auto* const record = file.takeNext())
        records.push_back(record);
    std::vector<double> first;
    std::vector<double> last;
    const auto mark = [&](std::size_t row, std::vector<double>& times) {
        const auto start = Clock::now();
        file.markBurned(records[row]);
        times.push_back(secondsSince(start));
    };
    while (state.KeepRunning()) {
        for (std::size_t i = 0; i < kMarks; ++i) {
            mark(i, first);
            mark(kRows - 1 - i, last);
        }
    }
    const double firstMedian = median(first);
    const double lastMedian = median(last);
    state.counters["first_us"] = firstMedian * 1e6;
    state.counters["last_us"] = lastMedian * 1e6;
    if (std::max(firstMedian, lastMedian) > 2 * std::min(firstMedian, lastMedian))
        state.SkipWithError("the cost of a mark depends on its row");
}
BENCHMARK(markBurned)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
