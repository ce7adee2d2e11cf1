// The list of serial ports, over pseudo terminals in the place of the machine's ports.
#include "pages/serial/serialportlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/serialdevice.h"
#include "simulator/serial/virtualserialports.h"
#include "support/pseudoterminal.h"
#include "utils/text.h"
#include "vorlan/uart/uartcontext.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<SSerInfo> listed(bool ignoreBusy) {
    std::vector<SSerInfo> ports(3);  // of an earlier list
    listSerialPorts(ports, ignoreBusy);
    return ports;
}

std::vector<std::string> pathsOf(const std::vector<SSerInfo>& ports) {
    std::vector<std::string> paths;
    paths.reserve(ports.size());
    for (const SSerInfo& port : ports)
        paths.push_back(text::narrow(port.devicePath));
    return paths;
}

// What the machine's own ports are called is tried on libudev.
TEST(SerialPortList, APortWithoutAModelGoesByItsName) {
    simulator::VirtualSerialPorts ports;
    EXPECT_THAT(listed(false), IsEmpty());
    ports.arrive("/ports/d", "", false);
    const std::vector<SSerInfo> found = listed(false);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].portName, L"d");
    EXPECT_EQ(found[0].friendlyName, L"d");
    EXPECT_EQ(found[0].description, L"d");
}

TEST(SerialPortList, LeavesBusyPortsOutOnlyIfAskedTo) {
    simulator::VirtualSerialPorts ports;
    const PseudoTerminal first;
    const PseudoTerminal second;
    const PseudoTerminal third;
    const std::vector<std::string> all{first.portPath(), second.portPath(), third.portPath(),
                                       "/dev/absent"};
    for (const std::string& path : all)
        ports.arrive(path);
    {
        const auto user = platform::openSerialDevice(first.portPath(), {});
        const auto other = platform::openSerialDevice(second.portPath(), {});
        ASSERT_TRUE(user != nullptr && other != nullptr);
        EXPECT_EQ(pathsOf(listed(false)), all);
        EXPECT_THAT(pathsOf(listed(true)), ElementsAre(third.portPath()));
    }
    // The trials leave no port open or claimed.
    EXPECT_THAT(pathsOf(listed(true)),
                ElementsAre(first.portPath(), second.portPath(), third.portPath()));
    EXPECT_FALSE(third.isClaimed());
}

TEST(SerialPortList, TellsWhyItFailed) {
    simulator::VirtualSerialPorts ports;
    ports.arrive("/ports/a");
    ports.fail("SetupDiGetClassDevs failed. (err=2)");
    std::wstring text;
    try {
        listed(false);
    } catch (const SerialPortListError& error) {
        text = error.text();
    }
    EXPECT_EQ(text, L"SetupDiGetClassDevs failed. (err=2)");
}

TEST(SerialPortList, NamesLeadToThePortsThatTheEngineOpens) {
    simulator::VirtualSerialPorts ports;
    PseudoTerminal terminal;
    const fs::path link = fs::path(testing::TempDir()) / ("ttyV" + std::to_string(::getpid()));
    fs::create_symlink(terminal.portPath(), link);
    ports.arrive(link);
    const auto context = uart_context_create();
    uart_context_open_port(context.get(), link.filename().wstring());
    fs::remove(link);
    ASSERT_NE(context->port, nullptr);
    const std::uint8_t byte = 'x';
    ASSERT_EQ(serial_write(context->port, &byte, 1), 1);
    EXPECT_EQ(terminal.receive(1), "x");
}

}  // namespace
