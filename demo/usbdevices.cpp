#include "demo/usbdevices.h"

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr std::size_t kUnpluggedOne = 4;
constexpr std::size_t kRomFailure = 7;
constexpr std::size_t kFlashFailure = 10;
constexpr std::size_t kLateOne = UsbDevices::kTogether;

}  // namespace

UsbDevices::UsbDevices(Report& report, Audience audience) : report_(report) {
    UsbDeviceOptions options;
    options.romStartUp = 50ms;
    options.handOver = 50ms;
    options.eraseTime = 40ms;
    options.chunkTime = audience == Audience::kNobody ? 2500us : 15ms;
    options.resultTime = 150ms;
    for (std::size_t i = 0; i <= kLateOne; ++i)
        devices_.push_back({.port = "0000:00:14.0-2." + std::to_string(i + 1),
                            .deviceId = {},
                            .device = std::make_shared<VirtualUsbDevice>(options)});

    failingInRom().fate = UsbDevice::Fate::kFailsInRom;
    failingInRom().device->addFault(
        {.where = UsbFaultPoint::kMemData, .what = UsbFault::romStatus(0xF1), .skip = 5});
    failingInFlash().fate = UsbDevice::Fate::kFailsInFlash;
    failingInFlash().device->addFault({.where = UsbFaultPoint::kChunk,
                                       .what = UsbFault::error("flash program failed"),
                                       .skip = kGoodChunks});
    late().fate = UsbDevice::Fate::kComesLate;
}

UsbDevice& UsbDevices::toUnplug() {
    return devices_[kUnpluggedOne];
}

UsbDevice& UsbDevices::failingInRom() {
    return devices_[kRomFailure];
}

UsbDevice& UsbDevices::failingInFlash() {
    return devices_[kFlashFailure];
}

UsbDevice& UsbDevices::late() {
    return devices_[kLateOne];
}

void UsbDevices::plug(UsbDevice& device) {
    device.deviceId = bus_.plug(device.port, device.device);
    device.plugged = true;
    report_.line("plugged in   %s", device.port.c_str());
}

void UsbDevices::unplug(UsbDevice& device) {
    bus_.unplug(device.port);
    device.plugged = false;
    report_.line("unplugged    %s", device.port.c_str());
}

void UsbDevices::plugAnew() {
    for (const UsbDevice& device : devices_) {
        if (device.plugged)
            bus_.plug(device.port, device.device);
    }
}

}  // namespace simulator
