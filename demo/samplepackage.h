// The demo's firmware package and serial numbers, and what a device must hold in the end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/flash.h"

namespace simulator {

// What one image puts into flash.
struct SampleImage {
    std::string name;
    std::uint32_t address;
    std::vector<std::uint8_t> bytes;
};

// Seven entries of about 3 MiB in all: four images at their own places, of which burn.cfg moves
// one, one more that burn.cfg adds, the burner image, and burn.cfg itself. Always the same bytes.
class SamplePackage {
  public:
    SamplePackage();

    // False if the archive cannot be written.
    bool writeZip(const std::string& path) const;
    // Whether the flash holds just the images, with this serial number written over them at its
    // address; an empty one is none.
    bool isIn(const Flash& flash, const std::string& sn, std::uint32_t snAddress) const;

    // In burn order.
    const std::vector<SampleImage>& images() const { return images_; }
    const std::vector<std::uint8_t>& burner() const { return burner_; }

  private:
    std::vector<SampleImage> images_;
    std::vector<std::uint8_t> burner_;
};

// The flash proxy, which is no part of the package.
std::vector<std::uint8_t> sampleProxy();

// The rows of a serial number file, as bytes.
std::string sampleSerialNumbers(unsigned count);

}  // namespace simulator
