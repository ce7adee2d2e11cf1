#include "demo/serialdevices.h"

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr std::size_t kUnpluggedOne = 4;
constexpr std::size_t kNoisyOne = 7;
constexpr std::size_t kDigestFailure = 10;
constexpr std::size_t kLateOne = 13;
constexpr std::uint32_t kImagesBeforeTheLast = 4;

SerialDeviceOptions optionsFor(std::size_t number, Audience audience) {
    SerialDeviceOptions options;
    options.paced = audience == Audience::kOnlooker;
    options.romStartUp = number == kLateOne ? 3500ms : 50ms;
    options.proxyStartUp = 200ms;
    options.eraseTime = 40ms;
    options.digestTime = 50ms;
    return options;
}

// Noise beside good answers, and some in their place, for which the host has to ask again.
void makeNoisy(VirtualSerialDevice& device) {
    device.addFault({.where = SerialFaultPoint::kRomSync, .what = SerialFault::noise("#~?")});
    device.addFault(
        {.where = SerialFaultPoint::kProxySync, .what = SerialFault::noise("\x01\x7F")});
    device.addFault(
        {.where = SerialFaultPoint::kFlashBegin, .what = SerialFault::badEscape(), .skip = 1});
    device.addFault({.where = SerialFaultPoint::kFlashData,
                     .what = SerialFault::noise("noise", "\x55\xAA"),
                     .skip = 20,
                     .times = 5});
    device.addFault({.where = SerialFaultPoint::kFlashData,
                     .what = SerialFault::rawAnswer("\xDB?\xDC no frame"),
                     .skip = 60,
                     .times = 2});
}

}  // namespace

SerialDevices::SerialDevices(Report& report, Audience audience,
                             const std::filesystem::path& directory)
    : report_(report) {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    for (std::size_t i = 0; i < kCount; ++i)
        devices_.push_back(
            {.device = std::make_unique<VirtualSerialDevice>(
                 directory / ("ttyUSB" + std::to_string(i)), optionsFor(i, audience))});

    makeNoisy(*devices_[kNoisyOne].device);
    devices_[kDigestFailure].fate = SerialDevice::Fate::kRefusesDigest;
    devices_[kDigestFailure].device->addFault({.where = SerialFaultPoint::kMd5,
                                               .what = SerialFault::wrongDigest(),
                                               .skip = kImagesBeforeTheLast});
}

SerialDevice& SerialDevices::toUnplug() {
    return devices_[kUnpluggedOne];
}

void SerialDevices::plug(SerialDevice& device) {
    device.device->plugIn();
    ports_.arrive(device.device->portPath());
    report_.line("plugged in   %s", device.device->portName().c_str());
}

void SerialDevices::unplug(SerialDevice& device) {
    device.device->unplug();
    ports_.leave(device.device->portPath());
    report_.line("unplugged    %s", device.device->portName().c_str());
}

void SerialDevices::plugAnew() {
    for (const SerialDevice& device : devices_) {
        if (device.device->isPluggedIn())
            device.device->plugIn();
    }
}

}  // namespace simulator
