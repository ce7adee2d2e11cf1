// Unpacking a package of 64 MiB against the system's `unzip` on the same file, round by round. The
// budget: our median is not above the other's.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
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

constexpr std::size_t kImageSize = std::size_t{16} << 20;  // bytes; four of them
constexpr int kRounds = 9;

// Code-like bytes: runs, repeated words and noise, about half its size when packed.
std::string makeImage(std::uint32_t seed) {
    std::mt19937 random(seed);
    std::string image;
    image.reserve(kImageSize + 256);
    while (image.size() < kImageSize) {
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
    image.resize(kImageSize);
    return image;
}

bool runUnzip() {
    // Nothing else runs in this program.
    return std::system("unzip -o -q package.vrk -d theirs") == 0;  // NOLINT(concurrency-mt-unsafe)
}

void unpackLargePackage(benchmark::State& state) {
    TemporaryDirectory directory;
    directory.enter();
    PackageBuilder package;
    std::uint32_t seed = 1;
    for (const char* name : {"flashboot.bin", "master.bin", "script.bin", "respak.bin"})
        package.add(name, makeImage(seed++));
    package.write("package.vrk");

    std::vector<double> ours;
    std::vector<double> theirs;
    bool sound = true;
    for ([[maybe_unused]] auto _ : state) {
        fs::remove_all("theirs");
        theirs.push_back(secondsOf([&] { sound = runUnzip() && sound; }));
        fs::remove_all("ours");
        FirmwareManager manager;
        manager.setFirmwarePath(L"package.vrk");
        ours.push_back(secondsOf([&] { sound = manager.unpack(L".\\ours\\") && sound; }));
        state.SetIterationTime(ours.back());
    }
    for (const char* name : {"flashboot.bin", "respak.bin"}) {
        sound = sound && contentOf(fs::path("ours") / name) == contentOf(fs::path("theirs") / name);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(4 * kImageSize));
    state.counters["ours_ms"] = 1000 * median(ours);
    state.counters["unzip_ms"] = 1000 * median(theirs);
    state.counters["packed_MiB"] = static_cast<double>(fs::file_size("package.vrk")) / (1 << 20);
    if (!sound)
        state.SkipWithError("the package did not come out whole, or there is no unzip");
    else if (median(ours) > median(theirs))
        state.SkipWithError("slower than unzip");
}

}  // namespace

BENCHMARK(unpackLargePackage)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);
