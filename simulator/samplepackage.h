// A firmware package made of images that look like firmware, and what a device must hold once it
// is burned with it.
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

// Half of them compress well and half do not, like firmware. The same ones for the same seed.
std::vector<std::uint8_t> sampleBytes(std::uint32_t seed, std::size_t size);

class SamplePackage {
  public:
    // `burnCfg` has to tell the addresses of those images that are not at their own.
    SamplePackage(std::vector<SampleImage> images, std::vector<std::uint8_t> burner,
                  std::string burnCfg);

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
    std::string burnCfg_;
};

}  // namespace simulator
