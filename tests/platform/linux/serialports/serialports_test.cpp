// Which of a machine's terminals are serial ports, what they are called, and what is told of them
// when they come and go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <umockdev.h>

#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pages/serial/serialportlist.h"
#include "platform/serialports.h"

namespace platform {

bool operator==(const PortEvent& a, const PortEvent& b) {
    return a.kind == b.kind && a.name == b.name;
}

void PrintTo(const PortEvent& event, std::ostream* out) {
    *out << (event.kind == PortEvent::Kind::kArrived ? "arrived " : "removed ") << event.name;
}

}  // namespace platform

namespace {

using platform::PortEvent;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kController[] = "/devices/pci0000:00/0000:00:14.0";

// A machine with a USB controller and nothing on it yet.
class MockMachine {
  public:
    MockMachine() : testbed_(umockdev_testbed_new()) { add(kController, "pci", ""); }
    ~MockMachine() { g_object_unref(testbed_); }
    MockMachine(const MockMachine&) = delete;
    MockMachine& operator=(const MockMachine&) = delete;

    // Further lines of the description: properties "E:", attributes "A:", links "L:".
    void add(const std::string& path, const std::string& subsystem, const std::string& lines) {
        GError* error = nullptr;
        const std::string text = "P: " + path + "\nE: SUBSYSTEM=" + subsystem + "\n" + lines + "\n";
        if (umockdev_testbed_add_from_string(testbed_, text.c_str(), &error) == 0) {
            const std::string reason = error->message;
            g_error_free(error);
            throw std::runtime_error(reason);
        }
    }

    // A terminal; nothing opens its node.
    void addTerminal(const std::string& parent, const std::string& name,
                     const std::string& lines = "") {
        add(parent + "/tty/" + name, "tty", "E: DEVNAME=/dev/" + name + "\n" + lines);
    }

    // A USB adapter at a port of the controller, with a terminal.
    void addAdapter(const std::string& port, const std::string& name,
                    const std::string& adapterLines = "", const std::string& terminalLines = "") {
        const std::string adapter = adapterPath(port);
        const std::string serial = serialPath(port, name);
        add(adapter, "usb",
            "E: DEVTYPE=usb_device\nL: driver=../../../../../bus/usb/drivers/usb\n" + adapterLines);
        add(adapter + "/" + port + ":1.0", "usb",
            "E: DEVTYPE=usb_interface\nL: driver=../../drivers/ch341\n");
        add(serial, "usb-serial", "L: driver=../../../bus/usb-serial/drivers/ch341-uart\n");
        addTerminal(serial, name, terminalLines);
    }

    void tell(const std::string& path, const char* action) {
        umockdev_testbed_uevent(testbed_, ("/sys" + path).c_str(), action);
    }

    void removeTerminal(const std::string& parent, const std::string& name) {
        tell(parent + "/tty/" + name, "remove");
        umockdev_testbed_remove_device(testbed_, ("/sys" + parent + "/tty/" + name).c_str());
    }

    void removeAdapter(const std::string& port, const std::string& name) {
        removeTerminal(serialPath(port, name), name);
        for (const std::string& path :
             {serialPath(port, name), adapterPath(port) + "/" + port + ":1.0", adapterPath(port)})
            umockdev_testbed_remove_device(testbed_, ("/sys" + path).c_str());
    }

    static std::string adapterPath(const std::string& port) {
        return kController + std::string("/usb1/") + port;
    }
    static std::string serialPath(const std::string& port, const std::string& name) {
        return adapterPath(port) + "/" + port + ":1.0/" + name;
    }

  private:
    UMockdevTestbed* testbed_;
};

// What has no port behind it.
void addOtherTerminals(MockMachine& machine) {
    machine.addTerminal("/devices/virtual", "tty1");
    machine.addTerminal("/devices/virtual", "ptmx");
    machine.addTerminal("/devices/virtual", "ttyp0");
    machine.add("/devices/platform/serial8250", "platform", "L: driver=../../drivers/serial8250\n");
    machine.addTerminal("/devices/platform/serial8250", "ttyS1", "A: type=0\\n\n");
}

TEST(SerialPorts, AreThoseWithHardwareUnderTheNamesOfTheirModels) {
    MockMachine machine;
    std::vector<SSerInfo> ports;
    addOtherTerminals(machine);
    listSerialPorts(ports, false);
    EXPECT_THAT(ports, IsEmpty());

    machine.add("/devices/pnp0/00:00", "pnp", "L: driver=../../../bus/pnp/drivers/serial\n");
    machine.add("/devices/pnp0/00:00/00:00:0", "serial-base",
                "L: driver=../../../../bus/serial-base/drivers/ctrl\n");
    machine.addTerminal("/devices/pnp0/00:00/00:00:0", "ttyS0", "A: type=4\\n\n");
    // The rules look the controller up first, and what they find stays with the terminal of an
    // adapter that the database does not know.
    const std::string controllerModel = "E: ID_MODEL_FROM_DATABASE=USB xHCI Controller\n";
    machine.addAdapter("1-1", "ttyUSB0", "E: ID_MODEL_FROM_DATABASE=FT232 Serial (UART) IC\n",
                       "E: ID_MODEL_FROM_DATABASE=FT232 Serial (UART) IC\nE: ID_MODEL=FT232R\n");
    machine.addAdapter("1-2", "ttyUSB1", "",
                       controllerModel +
                           "E: ID_MODEL=Burn_Box_2\n"
                           "E: ID_MODEL_ENC=\\x20Burn_Box\\x20\\xc3\\xa42\\x20\\x20\n");
    machine.addAdapter("1-3", "ttyUSB2", "", controllerModel + "E: ID_MODEL=Burn_Box\n");
    machine.addAdapter("1-4", "ttyUSB3", "", controllerModel + "E: ID_MODEL_ENC=\\x20\n");
    machine.add("/devices/pci0000:00/0000:00:15.0", "pci",
                "L: driver=../../bus/pci/drivers/serial\n");
    machine.addTerminal("/devices/pci0000:00/0000:00:15.0", "ttyS4",
                        "E: ID_MODEL_FROM_DATABASE=Quad UART\nA: type=5\\n\n");

    listSerialPorts(ports, false);
    std::vector<std::wstring> lines;
    for (const SSerInfo& port : ports) {
        EXPECT_EQ(port.portName, L"");
        lines.push_back(port.devicePath + (port.isUsb ? L" usb " : L" ") + port.friendlyName +
                        L" = " + port.description);
    }
    EXPECT_THAT(lines, testing::UnorderedElementsAre(
                           L"/dev/ttyS0 serial (ttyS0) = serial",
                           L"/dev/ttyUSB0 usb FT232 Serial (UART) IC (ttyUSB0) = "
                           L"FT232 Serial (UART) IC (ttyUSB0)",
                           L"/dev/ttyUSB1 usb Burn_Box \u00E42 (ttyUSB1) = Burn_Box \u00E42",
                           L"/dev/ttyUSB2 usb Burn Box (ttyUSB2) = Burn Box",
                           L"/dev/ttyUSB3 usb ch341-uart (ttyUSB3) = ch341-uart",
                           L"/dev/ttyS4 Quad UART (ttyS4) = Quad UART"));
}

// All that has come, once the descriptor says that something has.
std::vector<PortEvent> awaited(platform::PortEvents& events) {
    constexpr int kPatience = 20'000;  // ms
    pollfd waiting{events.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, kPatience), 1);
    std::vector<PortEvent> all;
    while (const std::optional<PortEvent> event = events.next())
        all.push_back(*event);
    return all;
}

TEST(SerialPorts, ComeAndGoInOrderAndOnlyIfReal) {
    constexpr auto kArrived = PortEvent::Kind::kArrived;
    constexpr auto kRemoved = PortEvent::Kind::kRemoved;
    MockMachine machine;
    machine.addAdapter("1-1", "ttyUSB0");
    const std::unique_ptr<platform::PortEvents> events = platform::serialPorts().watch();
    ASSERT_NE(events, nullptr);
    EXPECT_FALSE(events->next().has_value());

    // The one that is there is announced again and is no arrival.
    machine.tell(MockMachine::serialPath("1-1", "ttyUSB0") + "/tty/ttyUSB0", "add");
    machine.tell(MockMachine::serialPath("1-1", "ttyUSB0") + "/tty/ttyUSB0", "change");
    machine.addAdapter("1-2", "ttyUSB1");
    machine.removeAdapter("1-1", "ttyUSB0");
    EXPECT_THAT(awaited(*events),
                ElementsAre(PortEvent{kArrived, "ttyUSB1"}, PortEvent{kRemoved, "ttyUSB0"}));

    addOtherTerminals(machine);
    EXPECT_THAT(awaited(*events), IsEmpty());
    machine.removeTerminal("/devices/virtual", "tty1");
    machine.removeTerminal("/devices/platform/serial8250", "ttyS1");
    machine.removeAdapter("1-2", "ttyUSB1");
    EXPECT_THAT(awaited(*events), ElementsAre(PortEvent{kRemoved, "ttyUSB1"}));

    // A port that returns under its name is a new one; gone before anybody looks, it was one too.
    machine.addAdapter("1-3", "ttyUSB0");
    machine.removeAdapter("1-3", "ttyUSB0");
    EXPECT_THAT(awaited(*events),
                ElementsAre(PortEvent{kArrived, "ttyUSB0"}, PortEvent{kRemoved, "ttyUSB0"}));
}

}  // namespace
