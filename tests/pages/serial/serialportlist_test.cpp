// The list of serial ports, over pseudo terminals in the place of the machine's ports.
#include "pages/serial/serialportlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/serialdevice.h"
#include "simulator/serial/virtualserialports.h"
#include "support/pseudoterminal.h"
#include "utils/text.h"
#include "vorlan/uart/header_configure.h"

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

TEST(SerialPortList, DescribesEachPort) {
    simulator::VirtualSerialPorts ports;
    EXPECT_THAT(listed(false), IsEmpty());

    struct Case {
        const char* model;
        bool isUsb;
        SSerInfo expected;
    };
    const Case cases[] = {
        {"Adapter", true, {L"/ports/a", L"", L"Adapter (a)", true, L"Adapter"}},
        {"K\xC3\xA4stchen",
         false,
         {L"/ports/b", L"", L"K\u00E4stchen (b)", false, L"K\u00E4stchen"}},
        // The first closing bracket is not the last character.
        {"Adapter (two) b",
         true,
         {L"/ports/c", L"", L"Adapter (two) b (c)", true, L"Adapter (two) b (c)"}},
        {"", false, {L"/ports/d", L"d", L"d", false, L"d"}},
    };
    for (const Case& one : cases)
        ports.arrive(fs::path(one.expected.devicePath), one.model, one.isUsb);

    const std::vector<SSerInfo> found = listed(false);
    ASSERT_EQ(found.size(), std::size(cases));
    for (std::size_t i = 0; i < found.size(); ++i) {
        const SSerInfo& expected = cases[i].expected;
        SCOPED_TRACE(cases[i].model);
        EXPECT_EQ(found[i].devicePath, expected.devicePath);
        EXPECT_EQ(found[i].portName, expected.portName);
        EXPECT_EQ(found[i].friendlyName, expected.friendlyName);
        EXPECT_EQ(found[i].isUsb, expected.isUsb);
        EXPECT_EQ(found[i].description, expected.description);
    }
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
    try {
        listed(false);
        FAIL() << "no error";
    } catch (const SerialPortListError& error) {
        EXPECT_EQ(error.text(), L"SetupDiGetClassDevs failed. (err=2)");
    }
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

TEST(SerialPortList, VirtualPortsReportWhileWatched) {
    simulator::VirtualSerialPorts ports;
    ports.arrive("/ports/before");
    const auto events = ports.watch();
    ASSERT_NE(events, nullptr);
    pollfd waiting{events->descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0);
    ports.arrive("/ports/a");
    ports.leave("/ports/a");
    for (const auto kind :
         {platform::PortEvent::Kind::kArrived, platform::PortEvent::Kind::kRemoved}) {
        EXPECT_EQ(::poll(&waiting, 1, 0), 1);
        const std::optional<platform::PortEvent> event = events->next();
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->kind, kind);
        EXPECT_EQ(event->name, "a");
    }
    EXPECT_EQ(::poll(&waiting, 1, 0), 0);
    EXPECT_FALSE(events->next().has_value());
}

}  // namespace
