#include "tests/platform/linux/libusbk/mockusbbus.h"

#include <umockdev.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

// The testbed's libraries are not instrumented, and their locks are unknown to ThreadSanitizer.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:libumockdev.so\n"
           "race:libglib-2.0.so\n";
}

namespace {

constexpr char kController[] = "/devices/pci0000:00/0000:00:14.0";
constexpr char kRootHub[] = "/devices/pci0000:00/0000:00:14.0/usb1";

std::string nodeName(int address) {
    char text[32];
    std::snprintf(text, sizeof text, "/dev/bus/usb/001/%03d", address);
    return text;
}

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

std::uint8_t low(std::uint16_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

std::uint8_t high(std::uint16_t value) {
    return static_cast<std::uint8_t>(value >> 8);
}

// Device, configuration and interface descriptor, with four bulk endpoints unless it is a hub.
Bytes descriptors(std::uint16_t vendorId, std::uint16_t productId, bool hub) {
    const std::uint8_t deviceClass = hub ? 9 : 0;
    const std::uint8_t interfaceClass = hub ? 9 : 0xFF;
    const Bytes endpoints = hub ? Bytes{} : Bytes{0x04, 0x06, 0x83, 0x85};
    const auto total = static_cast<std::uint8_t>(18 + 7 * endpoints.size());
    const auto count = static_cast<std::uint8_t>(endpoints.size());
    Bytes bytes{18,
                1,
                0x00,
                0x02,
                deviceClass,
                0,
                0,
                64,
                low(vendorId),
                high(vendorId),
                low(productId),
                high(productId),
                0x00,
                0x01,
                1,
                2,
                0,
                1};
    const Bytes configuration{9, 2, total, 0, 1, 1, 0, 0x80, 50};
    const Bytes interface { 9, 4, 0, 0, count, interfaceClass, 0, 0, 0 };
    bytes.insert(bytes.end(), configuration.begin(), configuration.end());
    bytes.insert(bytes.end(), interface.begin(), interface.end());
    for (const std::uint8_t endpoint : endpoints) {
        const Bytes descriptor{7, 5, endpoint, 2, 0x00, 0x02, 0};
        bytes.insert(bytes.end(), descriptor.begin(), descriptor.end());
    }
    return bytes;
}

void add(UMockdevTestbed* testbed, const std::string& description) {
    GError* error = nullptr;
    if (umockdev_testbed_add_from_string(testbed, description.c_str(), &error) == 0) {
        const std::string reason = error->message;
        g_error_free(error);
        throw std::runtime_error(reason);
    }
}

std::string describeDevice(const std::string& path, int address, const std::string& product,
                           const Bytes& bytes) {
    return "P: " + path + "\nE: DEVNAME=" + nodeName(address) +
           "\nE: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\nE: BUSNUM=001\nE: DEVNUM=" +
           nodeName(address).substr(17) + "\nA: busnum=1\\n\nA: devnum=" + std::to_string(address) +
           "\\n\nA: speed=480\\n\nA: bConfigurationValue=1\\n\nA: bNumConfigurations=1\\n"
           "\nA: manufacturer=Vorlan\\n\nA: product=" +
           product + "\\n\nH: descriptors=" + hex(bytes) + "\n\n";
}

}  // namespace

MockUsbBus::MockUsbBus() : testbed_(umockdev_testbed_new()) {
    gchar* const root = umockdev_testbed_get_root_dir(testbed_);
    root_ = root;
    g_free(root);
    std::filesystem::create_directories(root_ + "/dev/bus/usb/001");
    add(testbed_, std::string("P: ") + kController + "\nE: SUBSYSTEM=pci\n\n");
    addHub(kRootHub, 1);
    addHub(sysfsPath("1-2"), 2);
}

MockUsbBus::~MockUsbBus() {
    for (const auto& device : devices_)
        umockdev_testbed_detach_ioctl(testbed_, nodeName(device->address()).c_str(), nullptr);
    devices_.clear();
    g_object_unref(testbed_);
}

MockUsbDevice& MockUsbBus::plugIn(const std::string& port,
                                  const std::function<void(MockUsbDevice&)>& prepare,
                                  std::uint16_t vendorId, std::uint16_t productId) {
    const int address = ++lastAddress_;
    const std::string name = "1-" + port;
    MockUsbDevice& device = *devices_.emplace_back(
        std::make_unique<MockUsbDevice>(name, address, root_ + nodeName(address)));
    if (prepare)
        prepare(device);
    GError* error = nullptr;
    if (umockdev_testbed_attach_ioctl(testbed_, nodeName(address).c_str(), device.handler(),
                                      &error) == 0)
        throw std::runtime_error(error->message);
    add(testbed_, describeDevice(sysfsPath(name), address, "Vorlan device",
                                 descriptors(vendorId, productId, false)));
    return device;
}

void MockUsbBus::unplug(MockUsbDevice& device) {
    device.unplug();
    const std::string path = "/sys" + sysfsPath(device.sysfsName());
    umockdev_testbed_uevent(testbed_, path.c_str(), "remove");
    umockdev_testbed_remove_device(testbed_, path.c_str());
}

void MockUsbBus::addHub(const std::string& path, int address) {
    add(testbed_, describeDevice(path, address, "Hub", descriptors(0x1D6B, 0x0002, true)));
}

std::string MockUsbBus::sysfsPath(const std::string& name) const {
    const std::size_t dot = name.find('.');
    const std::string behindHub = dot == std::string::npos ? "" : "/" + name.substr(0, dot);
    return kRootHub + behindHub + "/" + name;
}
