#include "libusbk/device.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

namespace libusbk {
namespace {

constexpr char kSysfsDevices[] = "/sys/bus/usb/devices/";

void setText(char (&field)[kTextSize], std::string_view text) {
    field[text.copy(field, kTextSize - 1)] = '\0';
}

// The chain of ports from the root hub, as in "2.4"; empty for a root hub.
std::string portChain(libusb_device* device) {
    std::array<std::uint8_t, 7> ports{};  // USB allows no longer chain
    const int count = libusb_get_port_numbers(device, ports.data(), static_cast<int>(ports.size()));
    std::string chain;
    for (int i = 0; i < count; ++i) {
        if (i != 0)
            chain += '.';
        chain += std::to_string(ports[static_cast<std::size_t>(i)]);
    }
    return chain;
}

std::string sysfsDirectory(libusb_device* device) {
    const std::string bus = std::to_string(libusb_get_bus_number(device));
    const std::string chain = portChain(device);
    return kSysfsDevices + (chain.empty() ? "usb" + bus : bus + '-' + chain);
}

// The sysfs directory of the host controller that owns the bus; empty if there is none.
std::filesystem::path controllerOf(int bus) {
    std::error_code error;
    const std::filesystem::path rootHub =
        std::filesystem::canonical(kSysfsDevices + ("usb" + std::to_string(bus)), error);
    const std::filesystem::path owner = error ? std::filesystem::path() : rootHub.parent_path();
    return owner.filename() == "devices" ? std::filesystem::path() : owner;
}

// A name of the bus that, unlike its number, is the same after every start of the machine: that of
// its host controller. A controller can have several, whose ports are numbered alike, such as one
// for USB 2 and one for USB 3: they always come in the same order, and from the second on the name
// tells the place, as in "0000:00:14.0#1".
std::string busName(std::uint8_t bus) {
    const std::filesystem::path controller = controllerOf(bus);
    if (controller.filename().empty())
        return std::to_string(bus);
    int before = 0;
    for (int other = 1; other < bus; ++other)
        before += controllerOf(other) == controller ? 1 : 0;
    return controller.filename().string() + (before == 0 ? "" : "#" + std::to_string(before));
}

std::string readLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool matchesText(const char (&pattern)[kTextSize], std::string_view text) {
    const std::string_view wanted(pattern, ::strnlen(pattern, kTextSize));
    if (wanted.empty())
        return true;
    if (wanted.back() != '*')
        return text == wanted;
    const std::string_view start = wanted.substr(0, wanted.size() - 1);
    return text.substr(0, start.size()) == start;
}

}  // namespace

DeviceReference referTo(libusb_device* device) {
    return DeviceReference(libusb_ref_device(device));
}

std::vector<DeviceReference> connectedDevices(libusb_context* context) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    if (count < 0)
        throw std::bad_alloc();  // nothing else can go wrong there
    std::vector<DeviceReference> devices;
    for (ssize_t i = 0; i < count; ++i)
        devices.emplace_back(list[i]);
    // The references have passed to the vector.
    libusb_free_device_list(list, 0);
    return devices;
}

bool shareAPort(libusb_device* one, libusb_device* other) {
    return libusb_get_bus_number(one) == libusb_get_bus_number(other) &&
           portChain(one) == portChain(other);
}

DeviceEntry identify(libusb_device* device) {
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(device, &descriptor);  // libusb has it at hand: cannot fail
    DeviceEntry entry{};
    entry.vendorId = descriptor.idVendor;
    entry.productId = descriptor.idProduct;
    entry.driverId = kDriverIdLibusb;
    entry.busNumber = libusb_get_bus_number(device);
    entry.deviceAddress = libusb_get_device_address(device);

    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "USB\\VID_%04X&PID_%04X\\", entry.vendorId,
                  entry.productId);
    const std::string chain = portChain(device);
    const std::string id =
        text.data() + busName(libusb_get_bus_number(device)) + (chain.empty() ? "" : "-" + chain);
    setText(entry.deviceId, id);
    setText(entry.instanceId, id);
    setText(entry.service, "usbfs");
    std::snprintf(entry.devicePath, kTextSize, "/dev/bus/usb/%03d/%03d", entry.busNumber,
                  entry.deviceAddress);
    return entry;
}

void describe(libusb_device* device, DeviceEntry& entry) {
    const std::string directory = sysfsDirectory(device);
    setText(entry.manufacturer, readLine(directory + "/manufacturer"));
    const std::string product = readLine(directory + "/product");
    setText(entry.description, product.empty() ? "USB device" : product);
}

bool matches(const DevicePattern& pattern, const DeviceEntry& entry) {
    // The kernel gives devices no interface GUID and no class GUID: those texts are empty.
    return matchesText(pattern.deviceId, entry.deviceId) &&
           matchesText(pattern.deviceInterfaceGuid, entry.deviceInterfaceGuid) &&
           matchesText(pattern.classGuid, "");
}

DeviceReference findDevice(libusb_context* context, const DeviceEntry& entry) {
    for (DeviceReference& device : connectedDevices(context)) {
        if (libusb_get_bus_number(device.get()) == entry.busNumber &&
            libusb_get_device_address(device.get()) == entry.deviceAddress &&
            std::strcmp(identify(device.get()).deviceId, entry.deviceId) == 0)
            return std::move(device);
    }
    return nullptr;
}

}  // namespace libusbk
