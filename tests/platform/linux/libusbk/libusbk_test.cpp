// libusbK.so as the USB engine binds it, on the real libusb, with fake devices on a fake bus.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/linux/libusbk/mockusbbus.h"
#include "vorlan/burn/libusbk_table.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::HasSubstr;

constexpr auto kPatience = 20s;          // for what has to come
constexpr std::uint32_t kLong = 30'000;  // ms, for waits that something else has to end
constexpr std::uint32_t kShort = 50;     // ms, for waits that have to run out
constexpr std::uint8_t kIn = 0x85;
constexpr std::uint8_t kOut = 0x04;

const LibusbkTable& usb() {
    return libusbkTable();
}

// What a monitor has reported. The callback has no argument of its own, so there is one at a time.
class Reports {
  public:
    struct Report {
        std::int32_t kind;
        std::string id;
        int address;
        std::thread::id thread;
        libusbk::DeviceEntry entry;
    };

    Reports() { current_ = this; }
    ~Reports() { current_ = nullptr; }
    Reports(const Reports&) = delete;
    Reports& operator=(const Reports&) = delete;

    // Starts a monitor for the chip, and takes `hook` along for each report.
    libusbk::Monitor* watch(std::uint32_t flags = libusbk::kReportConnected,
                            std::function<void(const Report&)> hook = nullptr) {
        hook_ = std::move(hook);
        libusbk::MonitorParameters parameters{};
        parameters.flags = flags;
        std::string("USB\\VID_1234&PID_5678\\*").copy(parameters.pattern.deviceId, 255);
        parameters.callback = &Reports::onEvent;
        libusbk::Monitor* monitor = nullptr;
        EXPECT_TRUE(usb().HotK_Init(&monitor, &parameters));
        return monitor;
    }

    // The first `count` reports, as soon as there are as many.
    std::vector<Report> await(std::size_t count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return reports_.size() >= count; }));
        return reports_;
    }

  private:
    static void onEvent(libusbk::Monitor*, const libusbk::DeviceEntry* entry, std::int32_t kind) {
        const Report report{kind, entry->deviceId, entry->deviceAddress,
                            std::this_thread::get_id(), *entry};
        {
            const std::lock_guard guard(current_->mutex_);
            current_->reports_.push_back(report);
            current_->changed_.notify_all();
        }
        if (current_->hook_)
            current_->hook_(report);
    }

    static inline Reports* current_ = nullptr;
    std::function<void(const Report&)> hook_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Report> reports_;
};

// An open device with one slot.
class Opened {
  public:
    explicit Opened(const libusbk::DeviceEntry& entry) {
        EXPECT_TRUE(usb().UsbK_Init(&handle, &entry)) << usb().LibK_LastError();
        EXPECT_TRUE(usb().OvlK_Init(&pool_, handle, 1, 0));
        EXPECT_TRUE(usb().OvlK_Acquire(&slot, pool_));
    }
    // In the order of the engine: the pool outlives its handle.
    ~Opened() {
        EXPECT_TRUE(usb().UsbK_Free(handle));
        EXPECT_TRUE(usb().OvlK_Release(slot));
        EXPECT_TRUE(usb().OvlK_Free(pool_));
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    // Starts a transfer; the error, or kIoPending.
    std::uint32_t startRead(std::size_t length) {
        buffer.assign(length, 0);
        return error(usb().UsbK_ReadPipe(handle, kIn, buffer.data(),
                                         static_cast<std::uint32_t>(length), &moved, slot));
    }
    std::uint32_t startWrite(const Bytes& bytes) {
        buffer = bytes;
        return error(usb().UsbK_WritePipe(handle, kOut, buffer.data(),
                                          static_cast<std::uint32_t>(buffer.size()), &moved, slot));
    }
    // Sets `moved`; the error, or kNoError.
    std::uint32_t wait(std::uint32_t timeoutMs) {
        const std::uint32_t code = error(usb().OvlK_WaitOrCancel(slot, timeoutMs, &moved));
        return code;
    }
    // What a read gives.
    Bytes read(std::size_t length, std::uint32_t timeoutMs = kLong) {
        EXPECT_EQ(startRead(length), libusbk::kIoPending);
        EXPECT_EQ(wait(timeoutMs), libusbk::kNoError);
        return Bytes(buffer.begin(), buffer.begin() + moved);
    }
    std::uint32_t write(const Bytes& bytes) {
        const std::uint32_t code = startWrite(bytes);
        return code == libusbk::kIoPending ? wait(kLong) : code;
    }

    static std::uint32_t error(bool success) {
        return success ? std::uint32_t{libusbk::kNoError} : usb().LibK_LastError();
    }

    libusbk::UsbHandle* handle = nullptr;
    libusbk::OverlappedSlot* slot = nullptr;
    Bytes buffer;
    std::uint32_t moved = 0;

  private:
    libusbk::OverlappedPool* pool_ = nullptr;
};

// The connected devices with this id, or none.
std::vector<libusbk::DeviceEntry> list(const std::string& id) {
    libusbk::DevicePattern pattern{};
    id.copy(pattern.deviceId, sizeof pattern.deviceId - 1);
    pattern.deviceInterfaceGuid[0] = '*';
    pattern.classGuid[0] = '*';
    libusbk::DeviceList* found = nullptr;
    EXPECT_TRUE(usb().LstK_InitEx(&found, 0, &pattern));
    std::vector<libusbk::DeviceEntry> entries;
    const libusbk::DeviceEntry* entry = nullptr;
    if (usb().LstK_FindByVidPid(found, 0x1234, 0x5678, &entry))
        entries.push_back(*entry);
    else
        EXPECT_EQ(usb().LibK_LastError(), libusbk::kNoMoreItems);
    EXPECT_TRUE(usb().LstK_Free(found));
    return entries;
}

Bytes pattern(std::size_t size, int seed = 0) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<std::uint8_t>(seed));
    return bytes;
}

std::size_t threadsOfProcess() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Takes from the calling thread what lets root open any file, for as long as it lives.
class NoOverride {
  public:
    NoOverride() {
        ::syscall(SYS_capget, &header_, before_);
        __user_cap_data_struct now[2] = {before_[0], before_[1]};
        now[0].effective &= ~(1U << CAP_DAC_OVERRIDE);
        ::syscall(SYS_capset, &header_, now);
    }
    ~NoOverride() { ::syscall(SYS_capset, &header_, before_); }
    NoOverride(const NoOverride&) = delete;
    NoOverride& operator=(const NoOverride&) = delete;

  private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct before_[2] = {};
};

class LibusbkTest : public testing::Test {
  protected:
    void bind() {
        binding_.emplace();
        ASSERT_TRUE(LibusbkBinding::isBound());
    }
    void unbind() { binding_.reset(); }

    // Plugs in the device of most tests and gives its entry.
    libusbk::DeviceEntry plugInAndBind(
        const std::function<void(MockUsbDevice&)>& prepare = nullptr) {
        device = &bus.plugIn("3", prepare);
        bind();
        const auto entries = list("*");
        EXPECT_EQ(entries.size(), 1U);
        return entries.at(0);
    }

    MockUsbBus bus;
    MockUsbDevice* device = nullptr;

  private:
    std::optional<LibusbkBinding> binding_;
};

}  // namespace

TEST_F(LibusbkTest, ReportsDevicesInOrderOnOneThread) {
    MockUsbDevice& first = bus.plugIn("2.4");
    bus.plugIn("5", nullptr, 0x1234, 0x0001);
    bind();
    Reports reports;
    libusbk::Monitor* const monitor = reports.watch();
    const auto start = reports.await(1);
    EXPECT_STREQ(start[0].entry.deviceId, "USB\\VID_1234&PID_5678\\0000:00:14.0-2.4");
    EXPECT_STREQ(start[0].entry.instanceId, start[0].entry.deviceId);
    EXPECT_STREQ(start[0].entry.devicePath, "/dev/bus/usb/001/003");
    EXPECT_STREQ(start[0].entry.manufacturer, "Vorlan");
    EXPECT_STREQ(start[0].entry.description, "Vorlan device");
    EXPECT_EQ(start[0].entry.driverId, libusbk::kDriverIdLibusb);
    EXPECT_EQ(start[0].entry.busNumber, 1);

    bus.plugIn("6", nullptr, 0x4321, 0x5678);
    MockUsbDevice& second = bus.plugIn("2.11");
    bus.unplug(first);
    bus.unplug(second);
    MockUsbDevice& again = bus.plugIn("2.4");

    const auto all = reports.await(5);
    const std::string portFour = "USB\\VID_1234&PID_5678\\0000:00:14.0-2.4";
    const std::string portEleven = "USB\\VID_1234&PID_5678\\0000:00:14.0-2.11";
    const std::vector<std::pair<std::int32_t, std::string>> expected = {
        {libusbk::kArrival, portFour},    {libusbk::kArrival, portEleven},
        {libusbk::kRemoval, portFour},    {libusbk::kRemoval, portEleven},
        {libusbk::kArrival, portFour},
    };
    ASSERT_EQ(all.size(), expected.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(std::make_pair(all[i].kind, all[i].id), expected[i]) << i;
        EXPECT_EQ(all[i].thread, all[0].thread) << i;
        EXPECT_NE(all[i].thread, std::this_thread::get_id());
    }
    EXPECT_EQ(all[2].address, first.address());
    EXPECT_EQ(all[4].address, again.address());

    // A list agrees with the reports, and an entry of a device that has left opens nothing.
    EXPECT_TRUE(list(portEleven).empty());
    ASSERT_EQ(list(portFour).size(), 1U);
    EXPECT_EQ(list(portFour)[0].deviceAddress, again.address());
    libusbk::UsbHandle* handle = nullptr;
    EXPECT_FALSE(usb().UsbK_Init(&handle, &all[0].entry));
    EXPECT_EQ(usb().LibK_LastError(), libusbk::kDeviceNotConnected);
    EXPECT_TRUE(usb().HotK_Free(monitor));
    EXPECT_EQ(usb().LibK_LastError(), libusbk::kNoError);
}

TEST_F(LibusbkTest, EndOfAMonitorWaitsForItsCallbackAndIsFinal) {
    bus.plugIn("1");
    bind();
    Reports reports;
    std::mutex gate;
    std::atomic<bool> inCallback{false};
    std::atomic<bool> callbackEnded{false};
    std::unique_lock closed(gate);
    libusbk::Monitor* const monitor =
        reports.watch(libusbk::kReportConnected, [&](const Reports::Report&) {
            inCallback = true;
            const std::lock_guard wait(gate);
            callbackEnded = true;
        });
    reports.await(1);
    bus.plugIn("3");  // its report waits behind the callback, and must never be made
    std::thread opener([&] {
        std::this_thread::sleep_for(50ms);  // gives a wrong HotK_Free time to come back too soon
        closed.unlock();
    });
    EXPECT_TRUE(usb().HotK_Free(monitor));
    EXPECT_TRUE(callbackEnded);
    opener.join();

    // A new monitor that is not interested in what is there hears of what comes.
    Reports later;
    libusbk::Monitor* const second = later.watch(0);
    MockUsbDevice& fresh = bus.plugIn("4");
    EXPECT_EQ(later.await(1)[0].address, fresh.address());
    EXPECT_TRUE(usb().HotK_Free(second));
}
