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

// The rows of a serial number file, as bytes.
std::string demoSerialNumbers(unsigned count);

}  // namespace simulator
