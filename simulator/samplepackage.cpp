#include "simulator/samplepackage.h"

#include <algorithm>
#include <exception>
#include <random>
#include <utility>

#include "simulator/packagebuilder.h"

namespace simulator {
namespace {

std::string toString(const std::vector<std::uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace

std::vector<std::uint8_t> sampleBytes(std::uint32_t seed, std::size_t size) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>((i / 512) % 2 == 0 ? random() : i / 64);
    return bytes;
}

SamplePackage::SamplePackage(std::vector<SampleImage> images, std::vector<std::uint8_t> burner,
                             std::string burnCfg)
    : images_(std::move(images)), burner_(std::move(burner)), burnCfg_(std::move(burnCfg)) {}

bool SamplePackage::writeZip(const std::string& path) const {
    PackageBuilder package;
    package.add("burn.cfg", burnCfg_);
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

// The number may lie inside an image, and is written last.
bool SamplePackage::isIn(const Flash& flash, const std::string& sn, std::uint32_t snAddress) const {
    std::vector<Flash::Range> expected;
    bool numberInImage = sn.empty();
    for (const SampleImage& image : images_) {
        std::vector<std::uint8_t> bytes = image.bytes;
        if (snAddress >= image.address && snAddress - image.address < bytes.size()) {
            std::copy(sn.begin(), sn.end(), bytes.begin() + (snAddress - image.address));
            numberInImage = true;
        }
        if (!flash.holds(image.address, bytes))
            return false;
        expected.push_back({image.address, bytes.size()});
    }
    if (!numberInImage) {
        if (!flash.holds(snAddress, std::vector<std::uint8_t>(sn.begin(), sn.end())))
            return false;
        expected.push_back({snAddress, sn.size()});
    }
    std::sort(expected.begin(), expected.end(),
              [](const auto& a, const auto& b) { return a.address < b.address; });
    return flash.writtenRanges() == expected;
}

}  // namespace simulator
