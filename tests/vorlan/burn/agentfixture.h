// One agent, one virtual device in its burner image, a recorder of all reports: what the tests of
// the USB engine burn with.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "simulator/clock/turnedclock.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "support/recordinglog.h"
#include "support/temporarydirectory.h"
#include "usbtap.h"
#include "utils/interruption.h"
#include "utils/text.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/libusbktable.h"

// Keeps every report as a line.
class RecordingListener final : public BurnListener {
  public:
    void onBurnStart(BurnAgent* /*agent*/) override { reports.emplace_back("start"); }
    void onBurnProgress(BurnAgent* /*agent*/, const std::string& name, unsigned percent) override {
        progressed(percent);
        reports.push_back(name + " " + std::to_string(percent));
    }
    void onItemProgress(BurnAgent* /*agent*/, const BurnItem* item, unsigned percent) override {
        reports.push_back(text::narrow(item->file) + " " + std::to_string(percent));
    }
    void onBurnDone(BurnAgent* agent) override {
        reports.emplace_back(agent->is_done() ? "done too early" : "done");
    }
    void onBurnError(BurnAgent* /*agent*/, int code, const std::string& message) override {
        reports.push_back("error " + std::to_string(code) + " " + message);
    }

    bool has(const std::string& report) const {
        return std::find(reports.begin(), reports.end(), report) != reports.end();
    }

    std::vector<std::string> reports;
    std::function<void(unsigned)> progressed = [](unsigned /*percent of a number*/) {};
};

class AgentFixture : public testing::Test {
  protected:
    static constexpr const char* kPort = "0000:00:14.0-1.4";

    // As on the real bus, no transfer ends inside the call that starts it.
    AgentFixture() { bus.deferTransfers(true); }

    // Puts a device that runs the burner image on the bus.
    void plug(simulator::UsbDeviceOptions options = {},
              const simulator::UsbIdentity& identity = {}) {
        options.startsInBurner = true;
        tap.clear();
        device = std::make_shared<simulator::VirtualUsbDevice>(options);
        deviceId = bus.plug(kPort, device, identity);
    }

    // An image file of these bytes, as an item to burn.
    BurnItem item(const std::string& name, std::uint32_t address, const std::string& content) {
        return {text::widen(directory.write(name, content)), address};
    }

    // Burns in mode `mode`; true if all of it succeeded. On a thread of its own, whose clock is the
    // turned one.
    bool run(const std::vector<BurnItem>& items, const std::string& sn = {},
             unsigned mode = CMD_CODE_FLASH_WRITE) {
        BurnAgent agent(deviceId);
        agent.set_sn(sn, kSnAddress);
        std::thread([&, token = interruption::current()] {
            const interruption::Scope scope(token);
            agent.run(items, &listener, mode);
        }).join();
        return agent.is_done();
    }

    bool flashHolds(std::uint32_t address, const std::string& content) const {
        const std::vector<std::uint8_t> bytes(content.begin(), content.end());
        return device->flash().holds(address, bytes);
    }

    // Nobody has broken a rule and nothing is left open.
    void TearDown() override {
        if (device != nullptr) {
            EXPECT_EQ(device->errors(), std::vector<std::string>());
        }
        EXPECT_EQ(bus.openHandles(), 0U);
        EXPECT_EQ(bus.errors(), std::vector<std::string>());
    }

    static constexpr std::uint32_t kSnAddress = 0x7FF004;

    std::optional<TurnedClock> clock{std::in_place};
    TemporaryDirectory directory;
    simulator::VirtualUsbBus bus;
    UsbTap tap;
    LibusbkBinding binding;
    RecordingLog log;
    RecordingListener listener;
    std::shared_ptr<simulator::VirtualUsbDevice> device;
    std::string deviceId;
};

// Bytes that differ from place to place.
inline std::string imageBytes(std::size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    unsigned state = seed * 2654435761U;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}
