// A connected device as libusb knows it: how it is kept, named, described and found.
#pragma once

#include <libusb.h>

#include <memory>
#include <vector>

#include "platform/libusbk.h"

namespace libusbk {

struct UnreferenceDevice {
    void operator()(libusb_device* device) const { libusb_unref_device(device); }
};

// A reference: while it is held, the device's address in memory stands for it and no other, even
// after it has left.
using DeviceReference = std::unique_ptr<libusb_device, UnreferenceDevice>;

DeviceReference referTo(libusb_device* device);

std::vector<DeviceReference> connectedDevices(libusb_context* context);

// Whether the devices are, or were, plugged in at the same port. Neither is asked.
bool shareAPort(libusb_device* one, libusb_device* other);

// The device's ids, numbers and path. Neither device nor kernel driver is asked, so this never
// waits.
DeviceEntry identify(libusb_device* device);

// Adds the manufacturer's and the product's text. Waits while the kernel is busy with the device.
void describe(libusb_device* device, DeviceEntry& entry);

bool matches(const DevicePattern& pattern, const DeviceEntry& entry);

// The device that an entry stands for, or null if it has left.
DeviceReference findDevice(libusb_context* context, const DeviceEntry& entry);

}  // namespace libusbk
