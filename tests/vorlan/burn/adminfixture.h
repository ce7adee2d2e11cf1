// The administrator over a virtual bus, with a listener that keeps what it hears: what the tests of
// sessions and of the ROM stage work with.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agentfixture.h"
#include "simulator/clock/turnedclock.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "support/helpers.h"
#include "support/recordinglog.h"
#include "support/temporarydirectory.h"
#include "vorlan/burn/burnadmin.h"
#include "vorlan/burn/usblistener.h"

// Keeps what BurnAdmin reports as lines "EVENT PORT", in their order, and lets a test wait for
// them.
class RecordingUsbListener final : public UsbListener {
  public:
    // What the worker does once the burner image runs.
    std::function<void(SesHandle)> burn = [](SesHandle) {};
    // What happens at an arrival, before it is kept, and at a removal.
    std::function<void(SesHandle)> plugged = [](SesHandle) {};
    std::function<void(SesHandle)> removed = [](SesHandle) {};

    void onPlug(SesHandle session) override {
        plugged(session);
        add("plug", session);
    }
    void onBurnerReady(SesHandle session) override {
        add("ready", session);
        burn(session);
        add("burned", session);
    }
    void onRemove(SesHandle session) override {
        EXPECT_TRUE(session->workerEnded) << "the worker must be gone before its device is";
        removed(session);
        add("remove", session);
    }
    void onError(SesHandle session, std::uint32_t code, const std::string& message) override {
        char text[16];
        std::snprintf(text, sizeof text, "error %x ", code);
        add(text + message, session);
    }

    // Waits for the event, told with its port or without, to have come so often.
    bool waitFor(const std::string& event, std::size_t times = 1) const {
        return eventually([&] { return count(event) >= times; });
    }

    std::size_t count(const std::string& event) const {
        const std::lock_guard guard(lock_);
        return static_cast<std::size_t>(
            std::count_if(events_.begin(), events_.end(), [&](const std::string& candidate) {
                return (candidate + " ").starts_with(event + " ");
            }));
    }

    std::vector<std::string> events() const {
        const std::lock_guard guard(lock_);
        return events_;
    }

    void clear() {
        const std::lock_guard guard(lock_);
        events_.clear();
    }

    // The session at the port, while its device is plugged in.
    SesHandle session(const std::string& at) const {
        const std::lock_guard guard(lock_);
        return sessions_.at(at);
    }

  private:
    void add(const std::string& event, SesHandle session) {
        const std::string at = session->device_id.substr(session->device_id.rfind('\\') + 1);
        const std::lock_guard guard(lock_);
        sessions_[at] = session;
        events_.push_back(event + " " + at);
    }

    mutable std::mutex lock_;
    std::vector<std::string> events_;
    std::map<std::string, SesHandle> sessions_;
};

class AdminFixture : public testing::Test {
  protected:
    void start(std::uint32_t romWait = 5) {
        BurnAdmin* const admin = BurnAdmin::getInstance();
        admin->setRomWait(romWait);
        admin->setBurnerPath(burnerPath);
        admin->startMonitor(listener);
    }

    static std::string port(std::size_t number) { return "0-" + std::to_string(number); }

    std::shared_ptr<simulator::VirtualUsbDevice> plug(
        const std::string& at, simulator::UsbDeviceOptions options = {},
        const std::vector<simulator::UsbFaultRule>& faults = {}) {
        auto device = std::make_shared<simulator::VirtualUsbDevice>(options);
        for (const simulator::UsbFaultRule& fault : faults)
            device->addFault(fault);
        devices.push_back(device);
        bus.plug(at, device);
        return device;
    }

    void TearDown() override {
        BurnAdmin::destroyInstance();
        EXPECT_EQ(bus.openHandles(), 0U);
        EXPECT_EQ(bus.errors(), std::vector<std::string>());
        for (const auto& device : devices)
            EXPECT_EQ(device->errors(), std::vector<std::string>());
    }

    std::optional<TurnedClock> clock{std::in_place};
    TemporaryDirectory directory;
    std::string burner = imageBytes(5000, 9);
    std::string burnerPath = directory.write("burner.img", burner);
    simulator::VirtualUsbBus bus;
    RecordingLog log;
    RecordingUsbListener listener;
    std::vector<std::shared_ptr<simulator::VirtualUsbDevice>> devices;
};
