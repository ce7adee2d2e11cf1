// Whole burns through everything that a real device would see: the administrator, the ROM stage,
// the agent, libusbK.so and the real libusb; only the kernel's bus and the chip are made up.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "simulator/kernelusb/mockusbbus.h"
#include "simulator/kernelusb/wireddevice.h"
#include "support/helpers.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"
#include "vorlan/burn/burnadmin.h"
#include "vorlan/burn/burnagent.h"

namespace {

constexpr auto kPatience = std::chrono::seconds(60);
const std::string kNumber = "VRL260000000001";

// Burns each device as it gets ready, and tells when it has come so far.
class Burner final : public UsbListener {
  public:
    explicit Burner(std::vector<BurnItem> items) : items_(std::move(items)) {}

    void onPlug(SesHandle /*session*/) override { reached("plug"); }
    void onBurnerReady(SesHandle session) override {
        BurnAgent agent(session->device_id);
        agent.set_sn(kNumber, 0x7FF004);
        agent.run(items_, nullptr, CMD_CODE_FLASH_WRITE);
        reached(agent.is_done() ? "done" : "failed");
    }
    void onRemove(SesHandle /*session*/) override { reached("remove"); }
    void onError(SesHandle /*session*/, std::uint32_t /*code*/,
                 const std::string& message) override {
        reached(message);
    }

    // Waits for the next step on the device's road and takes it; "nothing" if none comes.
    std::string next() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return !steps_.empty(); }))
            return "nothing";
        std::string step = steps_.front();
        steps_.erase(steps_.begin());
        return step;
    }

  private:
    void reached(const std::string& step) {
        const std::lock_guard guard(mutex_);
        steps_.push_back(step);
        changed_.notify_all();
    }

    const std::vector<BurnItem> items_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> steps_;
};

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
}

class WholeBurn : public testing::Test {
  protected:
    WholeBurn() {
        BurnAdmin* const admin = BurnAdmin::getInstance();
        EXPECT_TRUE(LibusbkBinding::isBound());
        admin->setRomWait(10);
        admin->setBurnerPath(directory_.write("burner.img", burnerImage));
        admin->startMonitor(burner);
    }
    ~WholeBurn() override { BurnAdmin::destroyInstance(); }

    MockUsbDevice& plugIn(WiredDevice& device) {
        return bus.plugIn("2.4", [&](MockUsbDevice& wire) { device.connect(wire); });
    }

    const std::string image = std::string(20'001, 'v');
    const std::string burnerImage = std::string(5'000, 'b');
    MockUsbBus bus;

  private:
    TemporaryDirectory directory_;

  protected:
    Burner burner{{{text::widen(directory_.write("master.bin", image)), 0x10000}}};
};

TEST_F(WholeBurn, FromPlugInToRemovalOverTheRealLibusb) {
    WiredDevice device;
    MockUsbDevice& wire = plugIn(device);
    EXPECT_EQ(burner.next(), "plug");
    EXPECT_EQ(burner.next(), "done");
    bus.unplug(wire);
    EXPECT_EQ(burner.next(), "remove");
    BurnAdmin::destroyInstance();

    EXPECT_TRUE(device.chip.flash().holds(0x10000, Bytes(image.begin(), image.end())));
    EXPECT_TRUE(device.chip.flash().holds(0x7FF004, Bytes(kNumber.begin(), kNumber.end())));
    EXPECT_EQ(device.chip.downloadedBurner().size(), burnerImage.size());
    EXPECT_EQ(device.chip.errors(), std::vector<std::string>());
}

TEST_F(WholeBurn, PulledAHundredTimesInMidTransferNothingIsLeftOpen) {
    const std::ptrdiff_t open = openDescriptors();
    std::set<std::string> ends;
    for (int pulls = 1; pulls <= 100; ++pulls) {
        WiredDevice device(pulls % 18);  // so many are the writes of a burn
        MockUsbDevice& wire = plugIn(device);
        EXPECT_EQ(burner.next(), "plug");
        ASSERT_TRUE(eventually([&] { return device.isMute(); }));
        bus.unplug(wire);
        std::string step = burner.next();
        for (; step != "remove" && step != "nothing"; step = burner.next())
            ends.insert(step);
        ASSERT_EQ(step, "remove");
        wire.setReceiver(nullptr);
        // The testbed keeps two of its own for each device.
        ASSERT_TRUE(eventually([&] { return openDescriptors() == open + pulls + pulls; }))
            << openDescriptors() - open << " more after " << pulls;
    }
    EXPECT_EQ(ends, std::set<std::string>({"failed"}));
    WiredDevice sound;
    plugIn(sound);
    EXPECT_EQ(burner.next(), "plug");
    EXPECT_EQ(burner.next(), "done");
}

}  // namespace
