// Unpacking packages beside the system's `unzip` and `bsdtar` on the same files, round by round.
// The budget: for a large package our median is not above that of unzip.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "measure.h"
#include "simulator/packagebuilder.h"
#include "support/temporarydirectory.h"
#include "vorlan/firmware/firmwaremanager.h"

using simulator::PackageBuilder;

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLargeImage = std::size_t{16} << 20;  // bytes; four of them

// Code-like bytes: runs, repeated words and noise, about half its size when packed.
std::string makeImage(std::uint32_t seed, std::size_t size) {
    std::mt19937 random(seed);
    std::string image;
    image.reserve(size + 256);
    while (image.size() < size) {
        const std::uint32_t kind = random() % 4;
        const std::size_t length = 16 + random() % 200;
        if (kind == 0) {
            image.append(length, static_cast<char>(random() % 2 == 0 ? 0x00 : 0xFF));
        } else if (kind == 1 && image.size() > 40'000) {
            image.append(image.substr(image.size() - 1 - random() % 32'000, length));
        } else {
            const std::uint32_t values = kind == 2 ? 256 : 16;
            for (std::size_t i = 0; i < length; ++i)
                image.push_back(static_cast<char>(random() % values));
        }
    }
    image.resize(size);
    return image;
}

// Median times of unpacking package.vrk, in seconds: by the program, and by others round by round.
struct Times {
    double ours;
    double unzip;
    double bsdtar;
};

// Unpacks in the current folder; no times if that went wrong.
std::optional<Times> unpackBesideOthers(benchmark::State& state) {
    std::vector<double> ours;
    std::vector<double> unzip;
    std::vector<double> bsdtar;
    bool sound = true;
    const auto round = [&](const char* folder, std::vector<double>& times, const auto& unpack) {
        fs::remove_all(folder);
        fs::create_directory(folder);
        times.push_back(secondsOf([&] { sound = unpack() && sound; }));
    };
    for ([[maybe_unused]] auto _ : state) {
        round("unzip", unzip, [] { return runCommand("unzip -o -q package.vrk -d unzip"); });
        round("bsdtar", bsdtar, [] { return runCommand("bsdtar -xf package.vrk -C bsdtar"); });
        round("ours", ours, [] {
            FirmwareManager manager;
            manager.setFirmwarePath(L"package.vrk");
            return manager.unpack(L".\\ours\\");
        });
        state.SetIterationTime(ours.back());
    }
    for (const auto& entry : fs::directory_iterator("unzip"))
        sound = sound && contentOf(entry.path()) == contentOf("ours" / entry.path().filename());
    if (!sound) {
        state.SkipWithError("the package did not come out whole, or unzip or bsdtar is missing");
        return std::nullopt;
    }
    const Times times{median(ours), median(unzip), median(bsdtar)};
    state.counters["ours_ms"] = 1000 * times.ours;
    state.counters["unzip_ms"] = 1000 * times.unzip;
    state.counters["bsdtar_ms"] = 1000 * times.bsdtar;
    return times;
}

void unpackLargePackage(benchmark::State& state) {
    const EnteredDirectory directory;
    PackageBuilder package;
    std::uint32_t seed = 1;
    for (const char* name : {"flashboot.bin", "master.bin", "script.bin", "respak.bin"})
        package.add(name, makeImage(seed++, kLargeImage));
    package.write("package.vrk");
    const std::optional<Times> times = unpackBesideOthers(state);
    state.counters["packed_MiB"] = static_cast<double>(fs::file_size("package.vrk")) / (1 << 20);
    if (times && times->ours > times->unzip)
        state.SkipWithError("slower than unzip");
}
BENCHMARK(unpackLargePackage)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

// One image of so many bytes, beside a small one that every package has.
void unpackImage(benchmark::State& state) {
    static Growth growth;
    const EnteredDirectory directory;
    const auto size = static_cast<std::size_t>(state.range(0));
    PackageBuilder package;
    package.add("flashboot.bin", makeImage(1, 1024));
    package.add("master.bin", makeImage(2, size));
    package.write("package.vrk");
    if (const std::optional<Times> times = unpackBesideOthers(state))
        growth.check(state, static_cast<double>(size), times->ours);
}
BENCHMARK(unpackImage)
    ->ArgName("bytes")
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->Arg(8 << 20)
    ->Arg(64 << 20)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void unpackEntries(benchmark::State& state) {
    static Growth growth;
    const EnteredDirectory directory;
    PackageBuilder package;
    package.add("flashboot.bin", makeImage(1, 1024));
    package.add("master.bin", makeImage(2, 1024));
    for (std::int64_t i = 2; i < state.range(0); ++i)
        package.add("part" + std::to_string(i) + ".bin",
                    makeImage(static_cast<std::uint32_t>(i), 1024));
    package.write("package.vrk");
    if (const std::optional<Times> times = unpackBesideOthers(state))
        growth.check(state, static_cast<double>(state.range(0)), times->ours);
}
BENCHMARK(unpackEntries)
    ->ArgName("entries")
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10'000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
