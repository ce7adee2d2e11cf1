// The list of serial ports, over pseudo terminals in the place of the machine's ports.
#include "serialportlist.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/serialdevice.h"
#include "simulator/virtualserialports.h"
#include "vorlan/uart/protocol/header_configure.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

// A port on a pseudo terminal: what the host says comes out here.
class PtyPort {
  public:
    explicit PtyPort(const std::string& name)
        : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)),
          directory_(fs::path(testing::TempDir()) /
                     ("serialportlist-" + std::to_string(::getpid()))) {
        char slave[64] = "";
        EXPECT_EQ(::grantpt(master_), 0);
        EXPECT_EQ(::unlockpt(master_), 0);
        EXPECT_EQ(::ptsname_r(master_, slave, sizeof slave), 0);
        fs::create_directories(directory_);
        path_ = directory_ / name;
        fs::remove(path_);
        fs::create_symlink(slave, path_);
    }
    ~PtyPort() {
        ::close(master_);
        fs::remove_all(directory_);
    }
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    const fs::path& path() const { return path_; }
    char heard() const {
        char byte = 0;
        return ::read(master_, &byte, 1) == 1 ? byte : '\0';
    }

  private:
    int master_;
    fs::path directory_;
    fs::path path_;
};

std::vector<SSerInfo> listed(bool ignoreBusy) {
    std::vector<SSerInfo> ports(3);  // of an earlier list
    listSerialPorts(ports, ignoreBusy);
    return ports;
}

std::vector<std::wstring> namesOf(const std::vector<SSerInfo>& ports) {
    std::vector<std::wstring> names;
    for (const SSerInfo& port : ports)
        names.push_back(port.friendlyName);
    return names;
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
    const PtyPort first("first");
    const PtyPort second("second");
    const PtyPort third("third");
    for (const PtyPort* port : {&first, &second, &third})
        ports.arrive(port->path(), "M");
    ports.arrive(first.path().parent_path() / "absent", "M");

    {
        const auto user = platform::openSerialDevice(first.path(), {});
        const auto other = platform::openSerialDevice(second.path(), {});
        ASSERT_TRUE(user != nullptr && other != nullptr);
        EXPECT_THAT(namesOf(listed(false)),
                    ElementsAre(L"M (first)", L"M (second)", L"M (third)", L"M (absent)"));
        EXPECT_THAT(namesOf(listed(true)), ElementsAre(L"M (third)"));
    }
    // Nothing of the tests stays open.
    EXPECT_THAT(namesOf(listed(true)), ElementsAre(L"M (first)", L"M (second)", L"M (third)"));
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
    const PtyPort port("ttyV0");
    ports.arrive(port.path());
    const auto context = uart_context_create();
    uart_context_open_port(context.get(), L"ttyV0");
    ASSERT_NE(context->port, nullptr);
    const std::uint8_t byte = 'x';
    ASSERT_EQ(serial_write(context->port, &byte, 1), 1);
    EXPECT_EQ(port.heard(), 'x');
    uart_context_open_port(context.get(), L"ttyV1");
    EXPECT_EQ(context->port, nullptr);
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
