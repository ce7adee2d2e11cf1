#include "simulator/kernelusb/mockusbbus.h"

#include <umockdev.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

// The testbed's libraries are not instrumented, and their locks are unknown to ThreadSanitizer.
// Looked up by name at start.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:libumockdev.so\n"
           "race:libglib-2.0.so\n"
           "race:libudev.so\n";  // fills its one hash seed from any thread
}

namespace {

std::string nodeName(int bus, int address) {
    char text[32];
    std::snprintf(text, sizeof text, "/dev/bus/usb/%03d/%03d", bus, address);
    return text;
}

// The bus that a name like "1-2.4" begins with.
int busOf(const std::string& sysfsName) {
    return std::stoi(sysfsName);
}

// Device, configuration and interface descriptor as hexadecimal digits, with four bulk endpoints of
// 512 bytes unless it is a hub.
std::string descriptors(std::uint16_t vendorId, std::uint16_t productId, bool hub) {
    const std::string endpoints = hub ? ""
                                      : "07050402000200"
                                        "07050602000200"
                                        "07058302000200"
                                        "07058502000200";
    const unsigned size = 18 + static_cast<unsigned>(endpoints.size()) / 2;
    char text[256];
    std::snprintf(text, sizeof text,
                  "12010002%s000040%02X%02X%02X%02X000101020001"
                  "0902%02X00010100803209040000%02X%s000000%s",
                  hub ? "09" : "00", vendorId & 0xFFU, vendorId >> 8U, productId & 0xFFU,
                  productId >> 8U, size, hub ? 0U : 4U, hub ? "09" : "FF", endpoints.c_str());
    return text;
}

void add(UMockdevTestbed* testbed, const std::string& description) {
    GError* error = nullptr;
    if (umockdev_testbed_add_from_string(testbed, description.c_str(), &error) == 0) {
        const std::string reason = error->message;
        g_error_free(error);
        throw std::runtime_error(reason);
    }
}

std::string describeDevice(const std::string& path, int bus, int address,
                           const std::string& product, const std::string& descriptors) {
    const std::string node = nodeName(bus, address);
    return "P: " + path + "\nE: DEVNAME=" + node +
           "\nE: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\nE: BUSNUM=" + node.substr(13, 3) +
           "\nE: DEVNUM=" + node.substr(17) + "\nA: busnum=" + std::to_string(bus) +
           "\\n\nA: devnum=" + std::to_string(address) +
           "\\n\nA: speed=480\\n\nA: bConfigurationValue=1\\n\nA: bNumConfigurations=1\\n"
           "\nA: manufacturer=Vorlan\\n\nA: product=" +
           product + "\\n\nH: descriptors=" + descriptors + "\n\n";
}

}  // namespace

MockUsbBus::MockUsbBus() : testbed_(umockdev_testbed_new()) {
    gchar* const root = umockdev_testbed_get_root_dir(testbed_);
    root_ = root;
    g_free(root);
    addRootHub(1);
    addHub(sysfsPath("1-2"), 1, 2);
}

MockUsbBus::~MockUsbBus() {
    for (const auto& device : devices_)
        umockdev_testbed_detach_ioctl(
            testbed_, nodeName(busOf(device->sysfsName()), device->address()).c_str(), nullptr);
    g_object_unref(testbed_);  // ends the thread that the devices' handlers run on
}

MockUsbDevice& MockUsbBus::plugIn(const std::string& port,
                                  const std::function<void(MockUsbDevice&)>& prepare,
                                  std::uint16_t vendorId, std::uint16_t productId, int bus) {
    const int address = ++lastAddress_;
    const std::string name = std::to_string(bus) + "-" + port;
    const std::string node = nodeName(bus, address);
    MockUsbDevice& device =
        *devices_.emplace_back(std::make_unique<MockUsbDevice>(name, address, root_ + node));
    if (prepare)
        prepare(device);
    GError* error = nullptr;
    if (umockdev_testbed_attach_ioctl(testbed_, node.c_str(), device.handler(), &error) == 0)
        throw std::runtime_error(error->message);
    add(testbed_, describeDevice(sysfsPath(name), bus, address, "Vorlan device",
                                 descriptors(vendorId, productId, false)));
    return device;
}

void MockUsbBus::unplug(MockUsbDevice& device, bool loseEvent) {
    device.unplug();
    const std::string path = "/sys" + sysfsPath(device.sysfsName());
    if (!loseEvent)
        umockdev_testbed_uevent(testbed_, path.c_str(), "remove");
    umockdev_testbed_remove_device(testbed_, path.c_str());
}

void MockUsbBus::addRootHub(int bus, const std::string& controller) {
    const std::string owner = "/devices/pci0000:00/" + controller;
    if (!std::filesystem::exists(root_ + "/sys" + owner))
        add(testbed_, "P: " + owner + "\nE: SUBSYSTEM=pci\n\n");
    std::filesystem::create_directories((root_ + nodeName(bus, 0)).substr(0, root_.size() + 16));
    rootHubs_[bus] = owner + "/usb" + std::to_string(bus);
    addHub(rootHubs_[bus], bus, 1);
}

void MockUsbBus::addHub(const std::string& path, int bus, int address) {
    add(testbed_, describeDevice(path, bus, address, "Hub", descriptors(0x1D6B, 0x0002, true)));
}

std::string MockUsbBus::sysfsPath(const std::string& name) const {
    const std::size_t dot = name.find('.');
    const std::string behindHub = dot == std::string::npos ? "" : "/" + name.substr(0, dot);
    return rootHubs_.at(busOf(name)) + behindHub + "/" + name;
}
