#include "platform/serialports.h"

#include <algorithm>
#include <charconv>

#include "udevports.h"

namespace platform {
namespace {

std::string property(udev_device* device, const char* name) {
    const char* const value = udev_device_get_property_value(device, name);
    return value != nullptr ? value : "";
}

// A text in which udev has written bytes as "\x20", without the blanks around it.
std::string decode(std::string_view encoded) {
    std::string text;
    while (!encoded.empty()) {
        unsigned value = 0;
        const bool isEscape =
            encoded.size() >= 4 && encoded.substr(0, 2) == "\\x" &&
            std::from_chars(encoded.data() + 2, encoded.data() + 4, value, 16).ptr ==
                encoded.data() + 4;
        text += isEscape ? static_cast<char>(value) : encoded.front();
        encoded.remove_prefix(isEscape ? 4 : 1);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    text.erase(0, text.find_first_not_of(' '));
    return text;
}

// What the hardware calls itself. The short form has "_" for each blank.
std::string ownModel(udev_device* device) {
    std::string model = decode(property(device, "ID_MODEL_ENC"));
    if (!model.empty())
        return model;
    model = property(device, "ID_MODEL");
    std::replace(model.begin(), model.end(), '_', ' ');
    return decode(model);
}

// The driver of the nearest piece of hardware above that has one. The kernel's own layer between a
// UART and its terminal says nothing.
std::string driverOf(udev_device* device) {
    for (udev_device* above = udev_device_get_parent(device); above != nullptr;
         above = udev_device_get_parent(above)) {
        const char* const driver = udev_device_get_driver(above);
        const char* const subsystem = udev_device_get_subsystem(above);
        if (driver != nullptr &&
            (subsystem == nullptr || std::string_view(subsystem) != "serial-base"))
            return driver;
    }
    return "";
}

std::string modelOf(udev_device* port, udev_device* usbDevice) {
    // On a port of an unlisted USB adapter the database's name is that of the USB controller.
    std::string model =
        decode(property(usbDevice != nullptr ? usbDevice : port, "ID_MODEL_FROM_DATABASE"));
    if (model.empty())
        model = ownModel(port);
    return model.empty() ? driverOf(port) : model;
}

class SystemPorts final : public SerialPortSource {
  public:
    std::vector<SerialPortEntry> list() override {
        const UdevContext context(udev_new());
        std::vector<SerialPortEntry> entries;
        for (const UdevDevice& port : presentPorts(context.get())) {
            udev_device* const usbDevice =
                udev_device_get_parent_with_subsystem_devtype(port.get(), "usb", "usb_device");
            entries.push_back(
                {portName(port.get()), modelOf(port.get(), usbDevice), usbDevice != nullptr});
        }
        return entries;
    }

    std::unique_ptr<PortEvents> watch() override { return watchSystemPorts(); }

    std::string pathOf(std::string_view name) const override { return "/dev/" + std::string(name); }
};

SerialPortSource* substituted = nullptr;

}  // namespace

SerialPortSource& serialPorts() {
    static SystemPorts system;
    return substituted != nullptr ? *substituted : system;
}

void substituteSerialPorts(SerialPortSource* substitute) {
    substituted = substitute;
}

}  // namespace platform
