// One whole burn through everything that a real device would see: the administrator, the ROM stage,
// the agent, libusbK.so and the real libusb; only the kernel's bus and the chip are made up.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/kernelusb/mockusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"
#include "vorlan/burn/burnadmin.h"
#include "vorlan/burn/burnagent.h"

namespace {

constexpr auto kPatience = std::chrono::seconds(60);
const std::string kNumber = "VRL260000000001";

// Puts a virtual chip behind a fake device's endpoints.
void connect(MockUsbDevice& wire, simulator::VirtualUsbDevice& chip) {
    chip.powerOn();
    chip.opened();
    wire.setReceiver([&](std::uint8_t endpoint, const Bytes& bytes) {
        chip.hostWrites(endpoint, bytes);
        for (const std::uint8_t in : {EP_ADDR_CMD_RESP_IN, EP_ADDR_DATA_RESP_IN}) {
            while (const std::size_t waiting = chip.unreadBytes(in)) {
                Bytes answer(waiting);
                chip.hostReads(in, answer, 0);
                wire.send(in, answer);
            }
        }
    });
}

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

}  // namespace

TEST(WholeBurn, FromPlugInToRemovalOverTheRealLibusb) {
    const TemporaryDirectory directory;
    const std::string image(100'001, 'v');
    const std::string burnerImage(5'000, 'b');
    Burner burner({{text::widen(directory.write("master.bin", image)), 0x10000}});
    MockUsbBus bus;
    simulator::VirtualUsbDevice chip;

    BurnAdmin* const admin = BurnAdmin::getInstance();
    ASSERT_TRUE(LibusbkBinding::isBound());
    admin->setRomWait(10);
    admin->setBurnerPath(directory.write("burner.img", burnerImage));
    admin->startMonitor(burner);
    MockUsbDevice& wire = bus.plugIn("2.4", [&](MockUsbDevice& device) { connect(device, chip); });
    EXPECT_EQ(burner.next(), "plug");
    EXPECT_EQ(burner.next(), "done");
    bus.unplug(wire);
    EXPECT_EQ(burner.next(), "remove");
    BurnAdmin::destroyInstance();

    EXPECT_TRUE(chip.flash().holds(0x10000, Bytes(image.begin(), image.end())));
    EXPECT_TRUE(chip.flash().holds(0x7FF004, Bytes(kNumber.begin(), kNumber.end())));
    EXPECT_EQ(chip.downloadedBurner().size(), burnerImage.size());
    EXPECT_EQ(chip.errors(), std::vector<std::string>());
}
