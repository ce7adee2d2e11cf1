// The demo's firmware and serial numbers. Always the same bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/samplepackage.h"

namespace simulator {

// Seven entries of about 3 MiB in all: four images at their own places, of which burn.cfg moves
// one, one more that burn.cfg adds, the burner image, and burn.cfg itself.
SamplePackage demoPackage();

// The flash proxy, which is no part of the package.
std::vector<std::uint8_t> demoProxy();

// Number `index`, from 1 on.
std::string demoSerialNumber(unsigned index);

// The rows of a serial number file with so many of them, as bytes.
std::string demoSerialNumbers(unsigned count);

// Writes package, serial number file and the flash proxy, which the program looks for below the
// current directory. False if that fails.
bool writeDemoFiles(const SamplePackage& package, const std::string& packagePath,
                    const std::string& csvPath, unsigned serialNumbers);

}  // namespace simulator
