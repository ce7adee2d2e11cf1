// libusbK.so as the USB engine binds it, on the real libusb, with fake devices on a fake bus.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <latch>
#include <mutex>
#include <numeric>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "libusbk/accessrule.h"
#include "simulator/kernelusb/mockusbbus.h"
#include "support/helpers.h"
#include "support/systemlimits.h"
#include "vorlan/burn/libusbktable.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr auto kPatience = 20s;          // for what has to come
constexpr std::uint32_t kLong = 30'000;  // ms, for waits that something else has to end
constexpr std::uint32_t kShort = 50;     // ms, for waits that have to run out
constexpr std::uint8_t kIn = 0x85;
constexpr std::uint8_t kOut = 0x04;

const LibusbkTable& usb() {
    return libusbkTable();
}

// How many more waits of the thread that runs libusb's events are to fail, and how often libusb was
// asked to open a device.
std::atomic<int> failingPolls = 0;
std::atomic<int> opens = 0;

template <typename Function>
Function below(const char* library, const char* name) {
    return reinterpret_cast<Function>(::dlsym(::dlopen(library, RTLD_LAZY | RTLD_NOLOAD), name));
}

// The code of the operation that has just failed, or kNoError.
std::uint32_t error(bool success) {
    return success ? std::uint32_t{libusbk::kNoError} : usb().LibK_LastError();
}

// What the monitors of the chip report.
class Reports {
  public:
    struct Report {
        libusbk::Monitor* monitor;
        std::int32_t kind;
        libusbk::DeviceEntry entry;

        // "+" for an arrival, "-" for a removal, the place behind the controller, the address.
        std::string text() const {
            const std::string id = entry.deviceId;
            return (kind == libusbk::kArrival ? "+" : "-") + id.substr(id.rfind('-') + 1) + "@" +
                   std::to_string(entry.deviceAddress);
        }
    };

    // `hook` is taken along for each report.
    explicit Reports(std::function<void(const Report&)> hook = [](const Report&) {})
        : hook_(std::move(hook)) {}
    ~Reports() {
        for (libusbk::Monitor* const monitor : monitors_)
            free(monitor);
    }
    Reports(const Reports&) = delete;
    Reports& operator=(const Reports&) = delete;

    libusbk::Monitor* watch(std::uint32_t flags = libusbk::kReportConnected) {
        libusbk::MonitorParameters parameters{};
        parameters.flags = flags;
        std::string("USB\\VID_1234&PID_5678\\*").copy(parameters.pattern.deviceId, 255);
        parameters.callback = &Reports::onEvent;
        parameters.user = this;
        libusbk::Monitor* monitor = nullptr;
        EXPECT_TRUE(usb().HotK_Init(&monitor, &parameters));
        monitors_.insert(monitor);
        return monitor;
    }

    void end(libusbk::Monitor* monitor) {
        monitors_.erase(monitor);
        free(monitor);
    }

    // The reports, as soon as there are so many.
    std::vector<Report> await(std::size_t count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return reports_.size() >= count; }));
        return reports_;
    }

    // Those behind the first `skip`.
    std::vector<std::string> texts(std::size_t count, std::size_t skip = 0) {
        std::vector<std::string> texts;
        for (const Report& report : await(skip + count))
            texts.push_back(report.text());
        texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(skip));
        return texts;
    }

  private:
    static void onEvent(libusbk::Monitor* monitor, const libusbk::DeviceEntry* entry,
                        std::int32_t kind, void* user) {
        auto* const self = static_cast<Reports*>(user);
        const Report report{monitor, kind, *entry};
        {
            const std::lock_guard guard(self->mutex_);
            if (self->reports_.empty())
                self->thread_ = std::this_thread::get_id();
            EXPECT_EQ(self->thread_, std::this_thread::get_id());
            self->reports_.push_back(report);
            self->changed_.notify_all();
        }
        self->hook_(report);
    }

    static void free(libusbk::Monitor* monitor) {
        EXPECT_TRUE(usb().HotK_Free(monitor));
        EXPECT_EQ(usb().LibK_LastError(), libusbk::kNoError);
    }

    const std::function<void(const Report&)> hook_;
    std::set<libusbk::Monitor*> monitors_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread::id thread_;
    std::vector<Report> reports_;
};

// How a transfer has ended, and how many bytes have moved.
using Ended = std::pair<std::uint32_t, std::uint32_t>;

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
        return error(usb().OvlK_WaitOrCancel(slot, timeoutMs, &moved));
    }
    // Whole transfers, of which the time may run out.
    Ended tryRead(std::size_t length) {
        EXPECT_EQ(startRead(length), libusbk::kIoPending);
        const std::uint32_t code = wait(kShort);
        return {code, moved};
    }
    Ended tryWrite(const Bytes& bytes) {
        EXPECT_EQ(startWrite(bytes), libusbk::kIoPending);
        const std::uint32_t code = wait(kShort);
        return {code, moved};
    }
    // What a read gives.
    Bytes read(std::size_t length) {
        EXPECT_EQ(startRead(length), libusbk::kIoPending);
        EXPECT_EQ(wait(kLong), libusbk::kNoError);
        return Bytes(buffer.begin(), buffer.begin() + moved);
    }
    std::uint32_t write(const Bytes& bytes) {
        const std::uint32_t code = startWrite(bytes);
        return code == libusbk::kIoPending ? wait(kLong) : code;
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
    libusbk::OverlappedSlot* noSlot = nullptr;

  private:
    std::optional<LibusbkBinding> binding_;
};

}  // namespace

// libusbK.so and libusb find these before those of the libraries.
extern "C" {

[[gnu::visibility("default")]] int poll(pollfd* waits, nfds_t count, int timeoutMs) {
    constexpr int kEventThreads = 60'000;  // nobody else waits so long
    if (timeoutMs == kEventThreads && failingPolls > 0) {
        --failingPolls;
        errno = ENOMEM;
        return -1;
    }
    const timespec limit{timeoutMs / 1000, timeoutMs % 1000 * 1'000'000L};
    return ::ppoll(waits, count, timeoutMs < 0 ? nullptr : &limit, nullptr);
}

[[gnu::visibility("default")]] int libusb_open(void* device, void** handle) {
    ++opens;
    static const auto real = below<int (*)(void*, void**)>("libusb-1.0.so.0", "libusb_open");
    return real(device, handle);
}
}

TEST_F(LibusbkTest, ReportsDevicesInOrder) {
    MockUsbDevice& first = bus.plugIn("2.4");
    bus.plugIn("5", nullptr, 0x1234, 0x0001);
    bind();
    Reports reports;
    reports.watch();
    const libusbk::DeviceEntry entry = reports.await(1)[0].entry;
    const std::string id = "USB\\VID_1234&PID_5678\\0000:00:14.0-2.";
    EXPECT_EQ(entry.deviceId, id + "4");
    EXPECT_EQ(entry.instanceId, id + "4");
    EXPECT_STREQ(entry.devicePath, "/dev/bus/usb/001/003");
    EXPECT_STREQ(entry.manufacturer, "Vorlan");
    EXPECT_STREQ(entry.description, "Vorlan device");
    EXPECT_EQ(entry.driverId, libusbk::kDriverIdLibusb);
    EXPECT_EQ(entry.busNumber, 1);

    MockUsbDevice& foreign = bus.plugIn("6", nullptr, 0x4321, 0x5678);
    MockUsbDevice& second = bus.plugIn("2.11");
    reports.await(2);
    bus.unplug(foreign);
    EXPECT_TRUE(list(id + "1").empty()) << "not 2.11";
    EXPECT_TRUE(list("USB\\VID_1234&PID_0001\\*").empty()) << "not of the chip";
    bus.unplug(first);
    bus.unplug(second);
    MockUsbDevice& again = bus.plugIn("2.4");
    EXPECT_THAT(reports.texts(5), ElementsAre("+2.4@3", "+2.11@6", "-2.4@3", "-2.11@6", "+2.4@7"));

    // A lost removal is made up for when the port has a new device.
    bus.unplug(again, true);
    MockUsbDevice& replacement = bus.plugIn("2.4");
    EXPECT_THAT(reports.texts(2, 5), ElementsAre("-2.4@7", "+2.4@8"));

    // A list agrees with the reports, and an entry of a device that has left opens nothing.
    EXPECT_TRUE(list(id + "11").empty());
    ASSERT_EQ(list(id + "4").size(), 1U);
    EXPECT_EQ(list(id + "4")[0].deviceAddress, 8);
    libusbk::UsbHandle* handle = nullptr;
    EXPECT_EQ(error(usb().UsbK_Init(&handle, &entry)), libusbk::kDeviceNotConnected);

    // So it is when the new device is of another kind, which the monitor does not hear of.
    bus.unplug(replacement, true);
    bus.plugIn("2.4", nullptr, 0x1234, 0x0001);
    EXPECT_THAT(reports.texts(1, 7), ElementsAre("-2.4@8"));

    // Whoever has left is forgotten, also when another gets its memory.
    for (std::size_t i = 1; i <= 20; ++i) {
        MockUsbDevice& visitor = bus.plugIn("2." + std::to_string(20 + i));
        reports.await(7 + 2 * i);
        bus.unplug(visitor);
        EXPECT_EQ(reports.texts(8 + 2 * i).back(),
                  "-2." + std::to_string(20 + i) + "@" + std::to_string(visitor.address()));
    }
}

TEST_F(LibusbkTest, EachPortOfTheMachineHasAnIdOfItsOwn) {
    // USB 2 and USB 3 ports of one controller are numbered alike; another controller comes between,
    // as when its driver was loaded first.
    bus.addRootHub(2, "0000:00:1a.0");
    bus.addRootHub(10);
    bus.addRootHub(11);
    bind();
    const std::pair<int, const char*> expected[] = {{1, "0000:00:14.0-3"},
                                                    {2, "0000:00:1a.0-3"},
                                                    {10, "0000:00:14.0#1-3"},
                                                    {11, "0000:00:14.0#2-3"}};
    for (const auto& [number, place] : expected) {
        bus.plugIn("3", nullptr, 0x1234, 0x5678, number);
        // By its id an agent opens that device and no other.
        const std::string id = std::string("USB\\VID_1234&PID_5678\\") + place;
        ASSERT_TRUE(eventually([&] { return list(id).size() == 1; })) << place;
        EXPECT_EQ(list(id)[0].busNumber, number);
    }
}

TEST_F(LibusbkTest, EndOfAMonitorWaitsForItsCallbackAndIsFinal) {
    bus.plugIn("1");
    bus.plugIn("4");
    bind();
    std::latch gate(1);
    std::atomic<bool> callbackEnded{false};
    Reports reports([&](const Reports::Report&) {
        gate.wait();
        callbackEnded = true;
    });
    libusbk::Monitor* const monitor = reports.watch();
    reports.await(1);
    bus.plugIn("3");  // its report and that of "4" wait behind the callback: never to be made
    std::thread opener([&] {
        std::this_thread::sleep_for(50ms);  // gives a wrong HotK_Free time to come back too soon
        gate.count_down();
    });
    reports.end(monitor);
    EXPECT_TRUE(callbackEnded);
    opener.join();
    EXPECT_EQ(reports.await(1).size(), 1U);
}

TEST_F(LibusbkTest, AMonitorThatHasEndedLeavesNothingToTheOneBehindIt) {
    bus.plugIn("1");
    bind();
    std::latch gate(1);
    Reports reports([&](const Reports::Report& report) {
        EXPECT_EQ(error(usb().HotK_Free(report.monitor)), libusbk::kInvalidParameter)
            << "it would wait for its own end";
        gate.wait();
    });
    libusbk::Monitor* const first = reports.watch();
    reports.await(1);
    // These wait for their turn behind the callback, and the second may get the memory of the one
    // before it.
    reports.end(reports.watch());
    libusbk::Monitor* const second = reports.watch();
    libusbk::Monitor* const onlyNews = reports.watch(0);
    gate.count_down();
    bus.plugIn("3");
    EXPECT_THAT(reports.texts(5), ElementsAre("+1@3", "+1@3", "+3@4", "+3@4", "+3@4"));
    libusbk::Monitor* const expected[] = {first, second, first, second, onlyNews};
    for (std::size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(reports.await(5)[i].monitor, expected[i]) << i;
}

TEST_F(LibusbkTest, EventsGoOnAfterAnErrorOfLibusb) {
    Opened opened(plugInAndBind());
    const auto start = Clock::now();
    failingPolls = 3;
    bus.plugIn("5");  // wakes the thread that runs the events
    ASSERT_TRUE(eventually([] { return failingPolls == 0; }));
    EXPECT_GE(Clock::now() - start, 200ms) << "it spins";
    device->send(kIn, pattern(8));
    EXPECT_EQ(opened.read(8), pattern(8));
}

TEST_F(LibusbkTest, SlotsAreCheckedAndUsedAgain) {
    const libusbk::DeviceEntry entry = plugInAndBind();
    Opened opened(entry);
    libusbk::OverlappedPool* pool = nullptr;
    libusbk::OverlappedSlot* slots[3] = {};
    ASSERT_TRUE(usb().OvlK_Init(&pool, opened.handle, 2, 0));
    EXPECT_TRUE(usb().OvlK_Acquire(&slots[0], pool));
    EXPECT_TRUE(usb().OvlK_Acquire(&slots[1], pool));
    EXPECT_NE(slots[0], slots[1]);
    EXPECT_EQ(error(usb().OvlK_Acquire(&slots[2], pool)), libusbk::kNoMoreItems);
    EXPECT_TRUE(usb().OvlK_Release(slots[0]));
    EXPECT_TRUE(usb().OvlK_Acquire(&slots[2], pool));
    EXPECT_EQ(slots[2], slots[0]);
    EXPECT_TRUE(usb().OvlK_Free(pool));

    EXPECT_EQ(opened.wait(kShort), libusbk::kInvalidParameter) << "nothing was started";
    EXPECT_EQ(opened.startRead(16), libusbk::kIoPending);
    EXPECT_EQ(opened.startRead(16), libusbk::kBusy);
    EXPECT_EQ(error(usb().OvlK_ReUse(opened.slot)), libusbk::kBusy);
    device->send(kIn, {});
    EXPECT_EQ(opened.wait(kLong), libusbk::kNoError);
    EXPECT_EQ(opened.wait(kShort), libusbk::kInvalidParameter) << "it was waited for already";

    Opened other(entry);
    std::swap(opened.slot, other.slot);
    EXPECT_EQ(opened.startRead(16), libusbk::kInvalidParameter);
    std::swap(opened.slot, other.slot);
}

TEST_F(LibusbkTest, CountsExactlyWhatMovedBeforeATimeOut) {
    Opened opened(plugInAndBind());
    EXPECT_EQ(opened.tryRead(16), Ended(libusbk::kCancelled, 0));
    // One full packet of two leaves the read open.
    device->send(kIn, pattern(512));
    EXPECT_EQ(opened.tryRead(1024), Ended(libusbk::kCancelled, 512));
    opened.buffer.resize(512);
    EXPECT_EQ(opened.buffer, pattern(512));

    // What comes after the cancellation belongs to the next read; a short answer ends it.
    device->send(kIn, pattern(10, 7));
    EXPECT_EQ(opened.read(512), pattern(10, 7));
    device->send(kIn, {});
    EXPECT_EQ(opened.read(512), Bytes());

    // What completes in the moment of the cancellation has completed, and else its count is exact.
    device->sendOnCancel(kIn, pattern(6));
    EXPECT_EQ(opened.tryRead(8), Ended(libusbk::kNoError, 6));
    device->sendOnCancel(kIn, pattern(512));
    EXPECT_EQ(opened.tryRead(1024), Ended(libusbk::kCancelled, 512));

    Bytes received;
    device->setReceiver([&](std::uint8_t endpoint, const Bytes& bytes) {
        EXPECT_EQ(endpoint, kOut);
        received = bytes;
        device->send(kIn, {1});
    });
    device->room = 3;
    EXPECT_EQ(opened.tryWrite(pattern(4096)), Ended(libusbk::kCancelled, 3 * 512));
    device->room = -1;
    EXPECT_EQ(opened.write(pattern(4096)), libusbk::kNoError);
    EXPECT_EQ(opened.moved, 4096U);
    EXPECT_EQ(opened.read(8), Bytes{1});
    EXPECT_EQ(received, pattern(4096));
    // All that was to move has moved, though nobody was told of the end before the cancellation.
    device->withholdsEnd = true;
    EXPECT_EQ(opened.tryWrite(pattern(1024)), Ended(libusbk::kNoError, 1024));

    // Without a slot the time limit is the library's own.
    std::swap(opened.slot, noSlot);
    EXPECT_EQ(opened.startRead(64), libusbk::kSemaphoreTimeout);
    EXPECT_EQ(opened.moved, 0U);
    device->send(kIn, pattern(64));
    EXPECT_EQ(opened.startRead(64), libusbk::kNoError);
    EXPECT_EQ(opened.moved, 64U);
    std::swap(opened.slot, noSlot);
}

TEST_F(LibusbkTest, FlushDropsLateAnswersAndResetClearsAHalt) {
    Opened opened(plugInAndBind());
    device->send(kIn, pattern(4096));
    device->send(kIn, pattern(10));
    device->send(kIn, {});
    device->send(kIn, pattern(12));
    EXPECT_TRUE(usb().UsbK_FlushPipe(opened.handle, kIn));
    EXPECT_TRUE(usb().UsbK_FlushPipe(opened.handle, kOut));
    device->send(kIn, {42});
    EXPECT_EQ(opened.read(16), Bytes{42});
    // The rest of an answer that was cut by the end of a wait goes as well.
    device->sendOnCancel(kIn, pattern(512));
    device->sendOnCancel(kIn, pattern(10));
    EXPECT_TRUE(usb().UsbK_FlushPipe(opened.handle, kIn));
    EXPECT_EQ(opened.tryRead(16), Ended(libusbk::kCancelled, 0));

    // A device that babbles does not hold up the host for good.
    for (int i = 0; i < 200; ++i)
        device->send(kIn, pattern(8));
    EXPECT_EQ(error(usb().UsbK_FlushPipe(opened.handle, kIn)), libusbk::kSemaphoreTimeout);

    device->stall(kOut);
    EXPECT_EQ(opened.write({1, 2, 3}), libusbk::kGeneralFailure);
    EXPECT_TRUE(usb().UsbK_ResetPipe(opened.handle, kIn));
    EXPECT_EQ(opened.write({1, 2, 3}), libusbk::kGeneralFailure);
    EXPECT_TRUE(usb().UsbK_ResetPipe(opened.handle, kOut));
    EXPECT_EQ(opened.write({1, 2, 3}), libusbk::kNoError);
    EXPECT_EQ(device->counts().clearedHalts, 2);
    EXPECT_EQ(device->counts().kernelClears, 2);
    device->stall(kIn);
    EXPECT_EQ(error(usb().UsbK_FlushPipe(opened.handle, kIn)), libusbk::kGeneralFailure);
}

TEST_F(LibusbkTest, AMuteDeviceDoesNotHoldUpAReset) {
    const libusbk::DeviceEntry entry = plugInAndBind();
    device->isMute = true;
    {
        Opened opened(entry);
        EXPECT_EQ(error(usb().UsbK_ResetPipe(opened.handle, kOut)), libusbk::kSemaphoreTimeout);
    }
    Opened opened(entry);
    std::thread stopper([&] {
        EXPECT_TRUE(device->awaitPending(0, 1));
        EXPECT_TRUE(usb().UsbK_Interrupt(opened.handle));
    });
    EXPECT_EQ(error(usb().UsbK_ResetPipe(opened.handle, kOut)), libusbk::kOperationAborted);
    stopper.join();
    EXPECT_EQ(error(usb().UsbK_ResetPipe(opened.handle, kOut)), libusbk::kOperationAborted);
    // The kernel, whose wait nothing can end, was never asked.
    EXPECT_EQ(device->counts().kernelClears, 0);
}

TEST_F(LibusbkTest, UnpluggingEndsATransferAtOnce) {
    Opened opened(plugInAndBind());
    EXPECT_EQ(opened.startRead(1024), libusbk::kIoPending);
    device->send(kIn, pattern(512));
    ASSERT_TRUE(device->awaitPending(kIn, 1));
    std::thread hand([&] { bus.unplug(*device); });
    EXPECT_EQ(opened.wait(kLong), libusbk::kDeviceNotConnected);
    EXPECT_EQ(opened.moved, 512U);
    hand.join();
    EXPECT_EQ(opened.startRead(16), libusbk::kDeviceNotConnected);
    EXPECT_EQ(opened.startWrite({1}), libusbk::kDeviceNotConnected);
}

TEST_F(LibusbkTest, InterruptionEndsTheWaitAndSticks) {
    Opened opened(plugInAndBind());
    // What has completed before keeps its result.
    device->send(kIn, pattern(8));
    EXPECT_EQ(opened.read(8), pattern(8));

    EXPECT_EQ(opened.startRead(16), libusbk::kIoPending);
    std::thread stopper([&] {
        EXPECT_TRUE(device->awaitPending(kIn, 1));
        EXPECT_TRUE(usb().UsbK_Interrupt(opened.handle));
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(opened.wait(kLong), libusbk::kOperationAborted);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kLong));
    stopper.join();

    EXPECT_EQ(opened.startRead(16), libusbk::kOperationAborted);
    std::swap(opened.slot, noSlot);
    EXPECT_EQ(opened.startRead(16), libusbk::kOperationAborted);
    std::swap(opened.slot, noSlot);
    EXPECT_EQ(error(usb().UsbK_FlushPipe(opened.handle, kIn)), libusbk::kOperationAborted);
    EXPECT_TRUE(usb().UsbK_FlushPipe(opened.handle, kOut));
}

TEST_F(LibusbkTest, ClaimsAreExclusiveAndEndWithTheirHandle) {
    const libusbk::DeviceEntry entry = plugInAndBind();
    libusbk::UsbHandle* second = nullptr;
    {
        // The first use of a pipe claims the interface.
        Opened first(entry);
        EXPECT_EQ(first.write({1}), libusbk::kNoError);
        EXPECT_EQ(device->counts().claims, 1);
        EXPECT_EQ(error(usb().UsbK_ClaimInterface(first.handle, 1, false)), libusbk::kNoMoreItems);
        EXPECT_EQ(error(usb().UsbK_ClaimInterface(first.handle, 1, true)), libusbk::kNoMoreItems);

        ASSERT_TRUE(usb().UsbK_Init(&second, &entry));
        EXPECT_EQ(error(usb().UsbK_ClaimInterface(second, 0, false)), libusbk::kBusy);
    }
    EXPECT_TRUE(usb().UsbK_ClaimInterface(second, 0, true));
    Opened third(entry);
    EXPECT_EQ(third.startWrite({1}), libusbk::kBusy);
    EXPECT_TRUE(usb().UsbK_ReleaseInterface(second, 0, false));
    EXPECT_EQ(third.write({1}), libusbk::kNoError);
    const std::uint8_t byte = 1;
    std::uint32_t moved = 0;
    EXPECT_EQ(error(usb().UsbK_WritePipe(second, kOut, &byte, 1, &moved, nullptr)), libusbk::kBusy);
    EXPECT_TRUE(usb().UsbK_Free(second));
}

TEST_F(LibusbkTest, KernelDriverIsDetachedOnceAndGivenBackAtTheEnd) {
    MockUsbDevice& leaving =
        bus.plugIn("4", [](MockUsbDevice& fresh) { fresh.bindDriver("usbserial"); });
    bind();
    {
        Reports reports;
        reports.watch();
        {
            Opened opened(reports.await(1)[0].entry);
            EXPECT_EQ(opened.write({1}), libusbk::kNoError);
            EXPECT_EQ(leaving.boundDriver(), "");
        }
        bus.unplug(leaving);
        reports.await(2);
    }
    const int before = opens;
    unbind();
    EXPECT_EQ(opens, before) << "a device that has left is still remembered";

    const libusbk::DeviceEntry entry =
        plugInAndBind([](MockUsbDevice& fresh) { fresh.bindDriver("cdc_acm"); });
    for (int i = 0; i < 2; ++i) {
        Opened opened(entry);
        EXPECT_EQ(opened.write({1}), libusbk::kNoError);
    }
    EXPECT_EQ(device->counts().detaches, 1);
    EXPECT_EQ(device->boundDriver(), "");
    unbind();
    EXPECT_EQ(device->boundDriver(), "cdc_acm");
}

TEST_F(LibusbkTest, ReportsADeviceAnewOnceItMayBeOpened) {
    const auto locked = [](MockUsbDevice& fresh) {
        ASSERT_EQ(::chmod(fresh.node().c_str(), 0), 0);
    };
    MockUsbDevice& early = bus.plugIn("3", locked);
    runBoundByPermissions([&] { bind(); });
    // As the engine does.
    std::vector<std::uint32_t> opened;
    Reports reports([&](const Reports::Report& report) {
        libusbk::UsbHandle* handle = nullptr;
        if (report.kind != libusbk::kArrival)
            return;
        opened.push_back(error(usb().UsbK_Init(&handle, &report.entry)));
        if (handle != nullptr)
            usb().UsbK_Free(handle);
    });
    libusbk::Monitor* monitor = nullptr;
    MockUsbDevice* late = nullptr;
    const Output output = outputOf([&] {
        monitor = reports.watch();
        reports.await(1);
        late = &bus.plugIn("4", locked);
        reports.await(2);
    });
    EXPECT_THAT(output.traced, AllOf(HasSubstr("0000:00:14.0-3"), HasSubstr("udev rule")));
    // Nobody else has to wait.
    MockUsbDevice& open = bus.plugIn("5");
    reports.await(3);
    ASSERT_EQ(::chmod(late->node().c_str(), 0666), 0);
    reports.await(5);
    bus.unplug(early);
    reports.await(6);
    // What has been opened, and what has left, is not reported again.
    bus.unplug(*late);
    bus.unplug(open);
    bus.plugIn("6");
    EXPECT_THAT(reports.texts(9), ElementsAre("+3@3", "+4@4", "+5@5", "-4@4", "+4@4", "-3@3",
                                              "-4@4", "-5@5", "+6@6"));
    reports.end(monitor);
    EXPECT_THAT(opened, ElementsAre(libusbk::kAccessDenied, libusbk::kAccessDenied,
                                    libusbk::kNoError, libusbk::kNoError, libusbk::kNoError));
}

TEST_F(LibusbkTest, RootNeedsNoDriverAndOthersAreToldTheyDo) {
    bind();
    const uid_t user = ::geteuid();
    if (user == 0) {
        EXPECT_TRUE(usb().LibK_IsDriverInstalled());
        ASSERT_EQ(::seteuid(65534), 0);
    }
    const std::uint32_t code = error(usb().LibK_IsDriverInstalled());
    EXPECT_EQ(code, libusbk::mayOpenDevices() ? libusbk::kNoError : libusbk::kAccessDenied);
    ASSERT_EQ(::seteuid(user), 0);
}

TEST_F(LibusbkTest, SixteenDevicesWorkWhileARemovalIsBeingHandled) {
    constexpr std::size_t kDevices = 16;
    bind();
    std::latch gate(1);
    Reports reports([&](const Reports::Report& report) {
        if (report.kind == libusbk::kArrival)
            Opened{report.entry};  // as the engine does: on the library's own thread
        else
            gate.wait();
    });
    reports.watch();
    MockUsbDevice& seventeenth = bus.plugIn("1");
    for (std::size_t i = 1; i <= kDevices; ++i) {
        MockUsbDevice& fresh = bus.plugIn("2." + std::to_string(i));
        // Says everything back.
        fresh.setReceiver([&fresh](std::uint8_t, const Bytes& bytes) { fresh.send(kIn, bytes); });
        reports.await(i + 1);
    }
    bus.unplug(seventeenth);
    const auto all = reports.await(kDevices + 2);

    std::vector<std::thread> workers;
    for (std::size_t i = 1; i <= kDevices; ++i) {
        workers.emplace_back([&entry = all[i].entry, i] {
            Opened opened(entry);
            for (int round = 0; round < 10; ++round) {
                const Bytes sent = pattern(4096, static_cast<int>(i) + round);
                EXPECT_EQ(opened.write(sent), libusbk::kNoError);
                EXPECT_EQ(opened.read(4096), sent);
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    gate.count_down();
}

TEST_F(LibusbkTest, NothingIsLeftWhenTheBindingEnds) {
    std::size_t unbound = 0;
    bus.plugIn("3");
    for (int i = 0; i < 3; ++i) {
        bind();
        {
            Reports reports;
            reports.watch();
            Opened opened(reports.await(1)[0].entry);
            EXPECT_GT(threadsOfProcess(), unbound);
            // Even with a transfer that nobody has waited for.
            EXPECT_EQ(opened.startRead(16), libusbk::kIoPending);
        }
        unbind();
        EXPECT_FALSE(LibusbkBinding::isBound());
        // The testbed has threads of its own, which all run by the end of the first binding.
        if (i == 0)
            unbound = threadsOfProcess();
        EXPECT_EQ(threadsOfProcess(), unbound);
    }
}
