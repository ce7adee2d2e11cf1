// Serial numbers on the USB road, with the real pool: drawn before a burn, marked once the device
// has confirmed it, given back when a device leaves without.
#include "storage/serialnumfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>

#include "adminfixture.h"

using namespace std::chrono_literals;
using simulator::Fault;
using simulator::FaultPoint;

namespace {

class SerialNumbersTest : public AdminFixture {
  protected:
    static constexpr std::uint32_t kSnAddress = 0x7FF004;

    // Marks the number of one burn.
    struct Marker final : BurnListener {
        Marker(SerialNumFile& markIn, SerialNumFile::SnRecord* marked)
            : file(markIn), record(marked) {}
        void onBurnStart(BurnAgent*) override {}
        void onBurnProgress(BurnAgent*, const std::string&, unsigned) override {}
        void onItemProgress(BurnAgent*, const BurnItem*, unsigned) override {}
        void onBurnDone(BurnAgent*) override {
            done = true;
            file.markBurned(record);
        }
        void onBurnError(BurnAgent*, int, const std::string&) override {}

        SerialNumFile& file;
        SerialNumFile::SnRecord* record;
        bool done = false;
    };

    void SetUp() override {
        image = text::widen(directory.write("image.bin", imageBytes(20'000)));
        listener.burn = [this](SesHandle session) {
            Marker marker(pool, pool.takeNext());
            ASSERT_NE(marker.record, nullptr);
            {
                const std::lock_guard guard(lock);
                drawn[session->device_id] = marker.record->sn;
            }
            BurnAgent agent(session->device_id);
            agent.set_sn(marker.record->sn, kSnAddress);
            agent.run({{image, 0x1000}}, &marker, CMD_CODE_FLASH_WRITE);
            const std::lock_guard guard(lock);
            if (!marker.done)
                held[session->device_id] = marker.record;
        };
        listener.removed = [this](SesHandle session) {
            const std::lock_guard guard(lock);
            if (held.contains(session->device_id))
                pool.releaseRecord(held[session->device_id]);
            held.erase(session->device_id);
        };
    }

    static std::string row(std::size_t number, bool burned = false) {
        return "SN-" + std::to_string(number) + (burned ? ",1\r\n" : ",0\r\n");
    }

    void load(const std::string& rows) {
        ASSERT_TRUE(pool.load(text::widen(directory.write("sn.csv", rows))));
    }

    // Plugs a device in and waits until it has drawn its number, which is told.
    std::string plugAndDraw(const std::string& at,
                            std::shared_ptr<simulator::VirtualUsbDevice> device) {
        devices.push_back(device);
        const std::string id = bus.plug(at, std::move(device));
        EXPECT_TRUE(listener.waitFor("ready " + at));
        std::string sn;
        EXPECT_TRUE(awaitTrue([&] {
            const std::lock_guard guard(lock);
            const auto found = drawn.find(id);
            if (found != drawn.end())
                sn = found->second;
            return !sn.empty();
        }));
        return sn;
    }

    static std::string numberIn(const simulator::VirtualUsbDevice& device, std::size_t size) {
        const std::vector<std::uint8_t> bytes = device.flash().read(kSnAddress, size);
        return {bytes.begin(), bytes.end()};
    }

    static std::shared_ptr<simulator::VirtualUsbDevice> makeDevice() {
        return std::make_shared<simulator::VirtualUsbDevice>();
    }

    std::wstring image;
    SerialNumFile pool;
    std::mutex lock;  // guards the two, which go by device id
    std::map<std::string, std::string> drawn;
    std::map<std::string, SerialNumFile::SnRecord*> held;  // numbers that no device has confirmed
};

TEST_F(SerialNumbersTest, OnlyConfirmedOnesAreMarkedAndTheOthersComeAgain) {
    load(row(10, true) + row(11) + row(12) + row(13) + row(14) + row(15));
    const auto failing = makeDevice();
    failing->addFault({FaultPoint::Chunk, Fault::error("worn out"), 2});
    const auto good = makeDevice();
    const auto leaving = makeDevice();
    leaving->addFault({FaultPoint::Chunk, Fault::unplug(100), 3});

    start();
    EXPECT_EQ(plugAndDraw("0-1", failing), "SN-11");
    EXPECT_EQ(plugAndDraw("0-2", good), "SN-12");
    EXPECT_EQ(plugAndDraw("0-3", leaving), "SN-13");
    ASSERT_TRUE(listener.waitFor("burned 0-1"));
    ASSERT_TRUE(listener.waitFor("burned 0-2"));
    ASSERT_TRUE(listener.waitFor("remove 0-3"));
    EXPECT_EQ(numberIn(*good, 5), "SN-12");
    for (const auto& device : {failing, leaving})
        EXPECT_EQ(numberIn(*device, 2), "\xFF\xFF");
    EXPECT_EQ(directory.read("sn.csv"),
              row(10, true) + row(11) + row(12, true) + row(13) + row(14) + row(15));

    // A failed device keeps its number for as long as it stays.
    EXPECT_EQ(plugAndDraw("0-4", makeDevice()), "SN-13");
    bus.unplug("0-1");
    ASSERT_TRUE(listener.waitFor("remove 0-1"));
    EXPECT_EQ(plugAndDraw("0-5", makeDevice()), "SN-11");
    EXPECT_EQ(plugAndDraw("0-6", makeDevice()), "SN-14");
    ASSERT_TRUE(listener.waitForCount("burned", 6));
    EXPECT_EQ(directory.read("sn.csv"), row(10, true) + row(11, true) + row(12, true) +
                                            row(13, true) + row(14, true) + row(15));
}

TEST_F(SerialNumbersTest, GivenBackTogetherTheLowestComesFirst) {
    load(row(11) + row(12) + row(13));
    start();
    for (const std::uint32_t i : {1U, 2U}) {
        const auto failing = makeDevice();
        failing->addFault({FaultPoint::Chunk, Fault::error("worn out"), i});
        plugAndDraw(port(i), failing);
        ASSERT_TRUE(listener.waitFor("burned " + port(i)));
    }
    // The higher one comes back first.
    for (const std::uint32_t i : {2U, 1U}) {
        bus.unplug(port(i));
        ASSERT_TRUE(listener.waitFor("remove " + port(i)));
    }
    EXPECT_EQ(plugAndDraw("0-3", makeDevice()), "SN-11");
    EXPECT_EQ(plugAndDraw("0-4", makeDevice()), "SN-12");
    ASSERT_TRUE(listener.waitForCount("burned", 4));
    EXPECT_EQ(directory.read("sn.csv"), row(11, true) + row(12, true) + row(13));
}

TEST_F(SerialNumbersTest, SixteenAtOnceEachGetTheirOwn) {
    std::string before;
    std::string after;
    std::set<std::string> expected;
    for (std::size_t number = 11; number <= 30; ++number) {
        const bool used = number < 11 + 16;
        before += row(number);
        after += row(number, used);
        if (used)
            expected.insert("SN-" + std::to_string(number));
    }
    load(before);
    start();
    for (std::size_t i = 1; i <= 16; ++i)
        plug(port(i), {.chunkTime = 500us, .resultTime = 20ms});
    ASSERT_TRUE(listener.waitForCount("burned", 16));

    std::set<std::string> inFlash;
    for (std::size_t i = 1; i <= 16; ++i) {
        const std::string sn = numberIn(*devices[i - 1], 5);
        EXPECT_EQ(sn, drawn[listener.session(port(i))->device_id]);
        inFlash.insert(sn);
    }
    EXPECT_EQ(inFlash, expected);
    EXPECT_EQ(directory.read("sn.csv"), after);
}

}  // namespace
