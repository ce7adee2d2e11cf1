#include "demo/samplepackage.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <string_view>

#include "simulator/packagebuilder.h"

namespace simulator {
namespace {

constexpr std::uint32_t kRespakAddress = 0x200000;  // not where it goes by default
constexpr std::uint32_t kVoiceAddress = 0x3C0000;

constexpr std::string_view kBurnCfg = R"({
    "burn_items": [
        {"name": "voice.bin", "addr": "0x3C0000"},
        {"name": "respak.bin", "addr": "200000"}
    ]
})";

// Half of it compresses well and half does not, like firmware.
std::vector<std::uint8_t> sampleBytes(std::uint32_t seed, std::size_t size) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>((i / 512) % 2 == 0 ? random() : i / 64);
    return bytes;
}

std::string toString(const std::vector<std::uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace

SamplePackage::SamplePackage()
    : images_{{"flashboot.bin", 0x0, sampleBytes(1, 60'000)},
              {"master.bin", 0x10000, sampleBytes(2, 1'700'001)},
              {"respak.bin", kRespakAddress, sampleBytes(3, 1'048'576)},
              {"config.bin", 0x7FF000, sampleBytes(4, 3'000)},
              {"voice.bin", kVoiceAddress, sampleBytes(5, 250'000)}},
      burner_(sampleBytes(6, 20 * 2048 + 77)) {}

bool SamplePackage::writeZip(const std::string& path) const {
    PackageBuilder package;
    package.add("burn.cfg", std::string(kBurnCfg));
    package.add("burner.img", toString(burner_));
    for (const SampleImage& image : images_)
        package.add(image.name, toString(image.bytes));
    try {
        package.write(path);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// The number lies inside an image and is written last.
bool SamplePackage::isIn(const Flash& flash, const std::string& sn, std::uint32_t snAddress) const {
    std::vector<Flash::Range> expected;
    for (const SampleImage& image : images_) {
        std::vector<std::uint8_t> bytes = image.bytes;
        if (snAddress >= image.address && snAddress - image.address < bytes.size())
            std::copy(sn.begin(), sn.end(), bytes.begin() + (snAddress - image.address));
        if (!flash.holds(image.address, bytes))
            return false;
        expected.push_back({image.address, bytes.size()});
    }
    std::sort(expected.begin(), expected.end(),
              [](const auto& a, const auto& b) { return a.address < b.address; });
    return flash.writtenRanges() == expected;
}

std::vector<std::uint8_t> sampleProxy() {
    return sampleBytes(7, 10 * 2048 + 333);
}

std::string sampleSerialNumbers(unsigned count) {
    std::string rows;
    for (unsigned i = 1; i <= count; ++i) {
        char row[32];
        std::snprintf(row, sizeof row, "VRL2600%08u,0\r\n", i);
        rows += row;
    }
    return rows;
}

}  // namespace simulator
