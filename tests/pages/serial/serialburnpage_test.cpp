// The serial page in the main window, over virtual devices on real ptys: a port's road from arrival
// to success, every failure on its tile, and what the operator can do meanwhile.
#include "pages/serial/serialburnpage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <functional>
#include <set>
#include <thread>

#include "pages/windowfixture.h"
#include "platform/serialdevice.h"
#include "simulator/clock/turnedclock.h"
#include "simulator/serial/virtualserialdevice.h"
#include "simulator/serial/virtualserialports.h"
#include "support/helpers.h"
#include "support/systemlimits.h"

using namespace std::chrono_literals;
using simulator::SerialDeviceOptions;
using simulator::SerialFault;
using simulator::SerialFaultPoint;
using simulator::SerialFaultRule;
using simulator::VirtualSerialDevice;
using simulator::WindowOperator;

namespace {

constexpr int kLongMs = 60'000;  // a burn pauses for 2 s, and silence is waited for many times

const QString kConnect = "请连接待烧录的设备！";
const QString kStopped = "烧录已停止！";
const QString kRemoved = "设备已移除！";
const QString kPreparing = "准备中...";

class SerialBurnPageTest : public WindowFixture {
  protected:
    SerialBurnPageTest() { writeContent("ramloader/flash_proxy.img", proxy); }

    ~SerialBurnPageTest() override {
        for (const auto& device : serialDevices)
            EXPECT_EQ(device->errors(), std::vector<std::string>());
    }

    // Opens the serial page with a package chosen.
    void prepareSerial() {
        ASSERT_TRUE(hands->press("串口烧录"));
        chooseFirmware(pathOf("package.vrk"));
    }

    static QString nameOf(int number) { return "ttyUSB" + QString::number(number); }

    VirtualSerialDevice& makeSerial(int number, SerialDeviceOptions options = {}) {
        serialDevices.push_back(std::make_unique<VirtualSerialDevice>(
            directory_.path() / nameOf(number).toStdString(), options));
        return *serialDevices.back();
    }

    void arrive(VirtualSerialDevice& device) {
        device.plugIn();
        ports.arrive(device.portPath());
        QCoreApplication::processEvents();  // the window hears of it now
    }

    void leave(VirtualSerialDevice& device) {
        device.unplug();
        ports.leave(device.portPath());
        QCoreApplication::processEvents();
    }

    VirtualSerialDevice& plugSerial(int number, SerialDeviceOptions options = {}) {
        VirtualSerialDevice& device = makeSerial(number, options);
        arrive(device);
        return device;
    }

    testing::AssertionResult shows(int number, const QString& beginning) {
        const QString name = nameOf(number);
        if (WindowOperator::waitFor(
                [&] { return hands->tileNamed(name).status.startsWith(beginning); }, kLongMs))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "it reads " << hands->tileNamed(name).status.toStdString();
    }

    // Whether the thread of the port's run of that number is still at work, as its last line in the
    // run log tells.
    bool isRunning(int number, std::size_t run = 1) const {
        const std::string end = "serve thread stopped, port=" + nameOf(number).toStdString();
        return occurrences(contentOf("log/run.log"), end) < run;
    }

    testing::AssertionResult ends(int number, std::size_t run = 1) {
        if (WindowOperator::waitFor([&] { return !isRunning(number, run); }, kLongMs))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << contentOf("log/run.log");
    }

    // The operator does something when the device has got a request, and the device waits for him.
    SerialFault operatorDoes(std::function<void()> act) {
        return SerialFault::meanwhile([this, act = std::move(act)] {
            std::atomic<bool> done = false;
            QMetaObject::invokeMethod(
                window.get(),
                [&] {
                    act();
                    done = true;
                },
                Qt::QueuedConnection);
            while (!done)
                std::this_thread::yield();
        });
    }

    // Whether the run waits two seconds for the proxy, which nothing shows but the time.
    static bool isInThePause(VirtualSerialDevice& device) {
        const bool loaded = WindowOperator::waitFor(
            [&] { return device.stage() == simulator::SerialStage::kProxy; });
        WindowOperator::waitFor([] { return false; }, 200);
        return loaded;
    }

    bool canRead(const QString& text) {
        return WindowOperator::waitFor([&] { return hands->canRead(text); });
    }

    bool holdsAll(const VirtualSerialDevice& device, const std::string& sn) const {
        return device.flash().holds(0x0, bytesOf(flashboot)) &&
               device.flash().holds(0x10000, bytesOf(master)) &&
               (sn.empty() || device.flash().holds(kSnAddress, bytesOf(sn))) &&
               device.downloadedProxy() == bytesOf(proxy);
    }

    const std::string proxy = std::string(3000, 'p');
    simulator::VirtualSerialPorts ports;
    std::vector<std::unique_ptr<VirtualSerialDevice>> serialDevices;
};

// Without the time that pauses and silence take.
class HurriedSerialBurnPageTest : private TurnedClock, public SerialBurnPageTest {};

TEST_F(HurriedSerialBurnPageTest, BurnsWhatIsThereAndWhatComes) {
    const auto count = storage_.getFlashCount();
    prepareSerial();
    importNumbers(row(1) + row(2) + row(3));
    VirtualSerialDevice& present = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_FALSE(hands->isEnabled("选择固件"));
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    VirtualSerialDevice& late = plugSerial(1, {.romStartUp = 1500ms});
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-2"));
    EXPECT_EQ(hands->tiles()[0].name, "ttyUSB0");
    EXPECT_EQ(hands->tiles()[2].name, "DEV3");
    EXPECT_TRUE(holdsAll(present, "SN-1"));
    EXPECT_TRUE(holdsAll(late, "SN-2"));
    EXPECT_EQ(present.rate(), 3'000'000U);
    EXPECT_EQ(hands->tileNamed(nameOf(0)).percent, 100);
    EXPECT_TRUE(WindowOperator::waitFor(
        [&] { return hands->edit("刷机计数")->text() == QString::number(count + 2); }));
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));

    // The next one at that port, which says nothing, has its own bar, and comes to nothing at last.
    present.addFault(
        {SerialFaultPoint::kRomSync, SerialFault::silence(), 0, SerialFaultRule::kAlways});
    const std::uint32_t asked = present.count(SerialFaultPoint::kRomSync);
    arrive(present);
    ports.arrive(present.portPath());  // told twice
    ASSERT_TRUE(shows(0, "出错, code=-1, des=CONNECT WITH ROM TRIGGER ERROR"));
    EXPECT_EQ(hands->tileNamed(nameOf(0)).percent, 0);
    EXPECT_EQ(present.count(SerialFaultPoint::kRomSync) - asked, 10U);
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));
    EXPECT_FALSE(storage_.getSnFile().isInUse());
}

// A step of a burn, as the device sees it, at which something happens.
struct Phase {
    SerialFaultPoint request;
    std::uint32_t skip;   // requests of this kind before it
    std::uint32_t begun;  // downloads to the flash so far: two images, then the number
    bool burns = false;   // a stop is too late
};

TEST_F(HurriedSerialBurnPageTest, AStopOrAPullInAnyPhaseLosesAndDoublesNoNumber) {
    using enum SerialFaultPoint;
    const std::vector<Phase> phases = {
        {kRomSync, 0, 0},   {kRamBegin, 0, 0},   {kRamData, 0, 0},
        {kRamEnd, 0, 0},    {kProxySync, 0, 0},  {kChangeBaudrate, 0, 0},
        {kFlashEnd, 0, 1},  {kFlashBegin, 1, 2}, {kFlashData, 1, 2},
        {kMd5, 1, 2},       {kFlashEnd, 1, 2},   {kFlashBegin, 2, 3},
        {kFlashData, 9, 3}, {kMd5, 2, 3},        {kFlashEnd, 2, 3, true},
    };
    prepareSerial();
    std::string rows;
    for (int i = 10; i < 20; ++i)
        rows += row(i);
    importNumbers(rows);
    std::string sn = "SN-10";
    std::size_t runs = 0;
    const auto serve = [&](const Phase& phase, VirtualSerialDevice& device, bool burns) {
        SCOPED_TRACE("request " + std::to_string(static_cast<int>(phase.request)) + " behind " +
                     std::to_string(phase.skip));
        const auto count = storage_.getFlashCount();
        arrive(device);
        ASSERT_TRUE(hands->press("开始烧录"));
        ASSERT_TRUE(ends(0, ++runs));
        EXPECT_EQ(device.count(kFlashBegin), phase.begun);
        EXPECT_EQ(occurrences(contentOf("log/run.log"), ":burned: ttyUSB0, SN=" + sn),
                  burns ? 1U : 0U);
        EXPECT_EQ(directory_.read("numbers.csv").find(sn + ",1") != std::string::npos, burns);
        EXPECT_EQ(storage_.getFlashCount() - count, burns ? 1U : 0U);
        EXPECT_FALSE(storage_.getSnFile().isInUse());
        if (burns) {
            EXPECT_TRUE(holdsAll(device, sn));
            sn = "SN-11";
        }
    };
    for (const Phase& phase : phases) {
        VirtualSerialDevice& stopped = makeSerial(0);
        stopped.addFault({phase.request, operatorDoes([&] {
                              EXPECT_TRUE(hands->press("停止烧录"));
                              // A number on its way into the device is no other's.
                              EXPECT_EQ(storage_.getSnFile().isInUse(), phase.begun == 3);
                          }),
                          phase.skip});
        serve(phase, stopped, phase.burns);
        leave(stopped);

        for (const SerialFault& pull : {SerialFault::unplug(), SerialFault::unplugInAnswer(3)}) {
            VirtualSerialDevice& pulled = makeSerial(0);
            pulled.addFault({phase.request, pull, phase.skip});
            serve(phase, pulled, false);
            leave(pulled);
            EXPECT_TRUE(canRead(kConnect));
            ASSERT_TRUE(hands->press("停止烧录"));
        }
    }
}

TEST_F(HurriedSerialBurnPageTest, FindsTheProxysRateAndAsksAgainBehindAnOddAnswer) {
    using enum SerialFaultPoint;
    prepareSerial();
    importNumbers(row(1));
    VirtualSerialDevice& device = makeSerial(0, {.proxyRate = 3'000'000});
    device.addFault({kRamData, SerialFault::emptyFrame()});
    device.addFault({kFlashBegin, SerialFault::cutAnswer(4, 1s)});
    device.addFault({kFlashData, SerialFault::longFrame(40)});
    device.addFault({kFlashData, SerialFault::lateAnswer(2s), 1});
    device.addFault({kMd5, SerialFault::earlierAnswer()});
    arrive(device);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    EXPECT_TRUE(holdsAll(device, "SN-1"));
    EXPECT_THAT(device.errors(), testing::IsEmpty());
}

TEST_F(HurriedSerialBurnPageTest, LeavesTheProxyTwoSecondsToStart) {
    prepareSerial();
    std::atomic<simulator::Clock::time_point> loaded;
    std::atomic<simulator::Clock::time_point> asked;
    const auto noteIn = [](std::atomic<simulator::Clock::time_point>& moment) {
        return SerialFault::meanwhile([&moment] { moment = simulator::Clock::now(); });
    };
    VirtualSerialDevice& device = makeSerial(0);
    device.addFault({SerialFaultPoint::kRamEnd, noteIn(loaded)});
    device.addFault({SerialFaultPoint::kProxySync, noteIn(asked)});
    arrive(device);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！"));
    EXPECT_GE(asked.load() - loaded.load(), 2s);
}

TEST_F(HurriedSerialBurnPageTest, CallsNothingASuccessThatIsNotAllInTheDevice) {
    const auto count = storage_.getFlashCount();
    prepareSerial();
    plugSerial(0).addFault({SerialFaultPoint::kMd5, SerialFault::wrongDigest()});
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(ends(0));
    leave(*serialDevices[0]);
    ASSERT_TRUE(hands->press("停止烧录"));

    // One image has no place in the flash.
    simulator::PackageBuilder()
        .add("flashboot.bin", flashboot)
        .add("master.bin", master)
        .add("far.bin", "nowhere")
        .add("burn.cfg", R"({"burn_items":[{"name":"far.bin", "addr":"-70000000"}]})")
        .write("astray.vrk");
    chooseFirmware(pathOf("astray.vrk"));
    importNumbers(",0\r\n");
    VirtualSerialDevice& device = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(ends(0, 2));
    EXPECT_TRUE(device.flash().holds(0, bytesOf(flashboot)));
    EXPECT_EQ(directory_.read("numbers.csv"), ",0\r\n");
    EXPECT_FALSE(storage_.getSnFile().isInUse());
    EXPECT_EQ(storage_.getFlashCount(), count);
    EXPECT_EQ(occurrences(contentOf("log/run.log"), "/BurnEnd"), 2U);
    EXPECT_EQ(occurrences(contentOf("log/run.log"), "E/BurnEnd"), 2U);
}

TEST_F(HurriedSerialBurnPageTest, SaysOnceWhoHoldsAPort) {
    prepareSerial();
    const std::unique_ptr<platform::SerialDevice> holder =
        platform::openSerialDevice(plugSerial(0).portPath(), {});
    ASSERT_NE(holder, nullptr);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "出错, code=-1, des=CONNECT WITH ROM TRIGGER ERROR"));
    EXPECT_EQ(occurrences(contentOf("log/run.log"), "ttyUSB0 is in use by"), 1U);
}

TEST_F(HurriedSerialBurnPageTest, ShowsEachFailureAndFreesItsNumber) {
    prepareSerial();
    importNumbers(row(1) + row(2) + row(3) + row(4) + row(5) + row(6));
    // Port 0 is there, but says nothing: its number stays with it to the end of its attempts.
    plugSerial(0, {.romStartUp = 1h});
    VirtualSerialDevice& rightDigest = makeSerial(1);
    VirtualSerialDevice& wrongDigest = makeSerial(2);
    wrongDigest.addFault({SerialFaultPoint::kMd5, SerialFault::wrongDigest()});
    VirtualSerialDevice& refusing = makeSerial(3);
    refusing.addFault({SerialFaultPoint::kChangeBaudrate, SerialFault::refuse(1, 0), 0, 7});
    VirtualSerialDevice& badNumber = makeSerial(4);
    badNumber.addFault({SerialFaultPoint::kMd5, SerialFault::wrongDigest(), 2});
    VirtualSerialDevice& deaf = makeSerial(5);
    deaf.addFault(
        {SerialFaultPoint::kProxySync, SerialFault::silence(), 0, SerialFaultRule::kAlways});
    for (VirtualSerialDevice* const device :
         {&rightDigest, &wrongDigest, &refusing, &badNumber, &deaf})
        arrive(*device);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-2"));
    ASSERT_TRUE(shows(3, "出错, code=-2, des=CHANGE BAUDRATE, RET=-2"));
    EXPECT_FALSE(hands->tileNamed(nameOf(3)).active);
    ASSERT_TRUE(shows(4, "出错, code=-5, des=MD5 CHECK ERROR"));
    ASSERT_TRUE(shows(5, "出错, code=-1, des=HANDSHAKE FAILED"));
    EXPECT_EQ(deaf.count(SerialFaultPoint::kChangeBaudrate), 0U);
    // The first image of this one failed, which its second one has written over; no success.
    ASSERT_TRUE(ends(2));
    EXPECT_TRUE(hands->tileNamed(nameOf(2)).status.startsWith("正在写入 .\\uart_temp_image\\"));
    EXPECT_FALSE(hands->tileNamed(nameOf(2)).active);
    EXPECT_EQ(directory_.read("numbers.csv"),
              row(1) + row(2, true) + row(3) + row(4) + row(5) + row(6));

    // A device that is pulled out gives its number back, and what was free is handed out again.
    // What the others have come to stays readable.
    leave(*serialDevices[0]);
    ASSERT_TRUE(shows(0, kRemoved));
    EXPECT_EQ(hands->tileNamed(nameOf(1)).status, "烧录成功！SN=SN-2");
    VirtualSerialDevice& next = plugSerial(6);
    leave(rightDigest);
    ASSERT_TRUE(shows(1, kRemoved));
    EXPECT_EQ(hands->tileNamed(nameOf(1)).percent, 0);
    ASSERT_TRUE(shows(6, "烧录成功！SN=SN-1"));
    EXPECT_TRUE(holdsAll(next, "SN-1"));
}

TEST_F(HurriedSerialBurnPageTest, BurnsWithoutNumbersAndUsesListsUp) {
    prepareSerial();
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_TRUE(canRead(kConnect));
    EXPECT_TRUE(hands->tiles().empty());
    ASSERT_TRUE(hands->press("导入SN"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({notice("正在烧录中，不能导入！")}));
    VirtualSerialDevice& device = plugSerial(0);
    ASSERT_TRUE(shows(0, "烧录成功！"));
    EXPECT_FALSE(hands->typeTag(0, "label"));
    EXPECT_EQ(hands->tileNamed(nameOf(0)).status, "烧录成功！");
    EXPECT_TRUE(holdsAll(device, ""));
    leave(device);
    EXPECT_TRUE(canRead(kConnect));  // nothing runs any more: the results go
    ASSERT_TRUE(hands->press("停止烧录"));

    importNumbers(row(1, true));
    arrive(device);
    VirtualSerialDevice& mute = plugSerial(1, {.romStartUp = 1h});
    ASSERT_TRUE(hands->press("开始烧录"));
    // No thread runs, and yet the operator can read why, until the last of the ports has left.
    ASSERT_TRUE(shows(0, "SN号已耗尽，请导入新的SN号！"));
    ASSERT_TRUE(shows(1, "SN号已耗尽，请导入新的SN号！"));
    EXPECT_THAT(contentOf("log/run.log"),
                testing::ContainsRegex("E/BurnEnd.*ttyUSB1, no number: no serial number is left"));
    leave(device);
    ASSERT_TRUE(shows(0, kRemoved));
    EXPECT_EQ(hands->tileNamed(nameOf(1)).status, "SN号已耗尽，请导入新的SN号！");
    leave(mute);
    EXPECT_TRUE(canRead(kConnect));
    EXPECT_TRUE(hands->tiles().empty());
    EXPECT_EQ(device.stage(), simulator::SerialStage::kRomLoader);
    EXPECT_EQ(mute.traffic(), 0U);
}

TEST_F(HurriedSerialBurnPageTest, StopsAtOnceAndBurnsAgain) {
    prepareSerial();
    importNumbers(row(1) + row(2) + row(3));
    VirtualSerialDevice& inBurn = makeSerial(0);
    inBurn.addFault({SerialFaultPoint::kFlashData, operatorDoes([&] {
                         for (const char* const entry : {"导入SN", "导入SN号"})
                             EXPECT_TRUE(hands->press(entry));
                         EXPECT_EQ(prompts_.takeBoxes(),
                                   std::vector<Box>(2, notice("正在烧录中，不能导入！")));
                         prompts_.answer(false);
                         EXPECT_TRUE(hands->press("主页"));
                         EXPECT_TRUE(hands->isEnabled("停止烧录"));
                         EXPECT_TRUE(hands->press("停止烧录"));
                     }),
                     3});
    arrive(inBurn);
    VirtualSerialDevice& mute = plugSerial(1, {.romStartUp = 1h});
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_TRUE(canRead(kStopped));
    EXPECT_TRUE(hands->tiles().empty());
    EXPECT_TRUE(hands->isEnabled("选择固件"));
    EXPECT_EQ(prompts_.takeBoxes().size(), 1U);
    EXPECT_EQ(directory_.read("numbers.csv"), row(1) + row(2) + row(3));

    leave(inBurn);
    leave(mute);
    arrive(inBurn);
    VirtualSerialDevice& other = plugSerial(1);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-"));
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-"));
    EXPECT_NE(hands->tileNamed(nameOf(0)).status, hands->tileNamed(nameOf(1)).status);
    EXPECT_TRUE(holdsAll(inBurn, ""));
    EXPECT_TRUE(holdsAll(other, ""));
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));
    prompts_.answer(true);
    ASSERT_TRUE(hands->press("主页"));
    EXPECT_EQ(prompts_.takeBoxes().size(), 1U);
    EXPECT_TRUE(hands->isEnabled("安装USB驱动"));
}

TEST_F(SerialBurnPageTest, AStoppedRunLeavesTheTileToTheNext) {
    prepareSerial();
    plugSerial(0, {.romStartUp = 1h});
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, kPreparing));
    ASSERT_TRUE(hands->press("停止烧录"));
    ASSERT_TRUE(hands->press("开始烧录"));
    // The first run ends with a failure that nobody is to see, and one more refresh would show it.
    ASSERT_TRUE(ends(0));
    WindowOperator::waitFor([] { return false; }, 200);
    EXPECT_EQ(hands->tileNamed(nameOf(0)).status, kPreparing);
    EXPECT_TRUE(hands->tileNamed(nameOf(0)).active);
}

TEST_F(HurriedSerialBurnPageTest, SixteenPortsAndOneTooMany) {
    prepareSerial();
    std::string numbers;
    for (int i = 10; i < 27; ++i)
        numbers += row(i);
    importNumbers(numbers);
    for (int i = 0; i < 17; ++i)
        plugSerial(i, {.romStartUp = 200ms});
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_EQ(prompts_.takeBoxes(),
              std::vector<Box>({{"超出支持的设备数量16", "提示", BoxType::kPlain}}));
    std::set<QString> given;
    for (int i = 0; i < 16; ++i) {
        ASSERT_TRUE(shows(i, "烧录成功！SN="));
        const QString sn = hands->tileNamed(nameOf(i)).status.mid(8);
        EXPECT_TRUE(given.insert(sn).second) << sn.toStdString();
        EXPECT_TRUE(holdsAll(*serialDevices[static_cast<std::size_t>(i)], sn.toStdString()));
    }
    EXPECT_THAT(directory_.read("numbers.csv"), testing::EndsWith(row(25, true) + row(26)));
    EXPECT_EQ(serialDevices[16]->traffic(), 0U);
    // A port that never got a slot leaves no trace; idle by now, the first slot takes it over.
    leave(*serialDevices[16]);
    for (int i = 0; i < 16; ++i)
        EXPECT_TRUE(hands->tileNamed(nameOf(i)).status.startsWith("烧录成功！SN="));
    arrive(*serialDevices[16]);
    ASSERT_TRUE(shows(16, "烧录成功！SN=SN-26"));
    EXPECT_EQ(hands->tiles()[0].name, nameOf(16));
}

TEST_F(SerialBurnPageTest, ClosesAtOnceWhileBurnsWindDown) {
    prepareSerial();
    importNumbers(row(1));
    VirtualSerialDevice& device = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(isInThePause(device));
    prompts_.answer(true);
    EXPECT_TRUE(window->close());
    EXPECT_EQ(prompts_.takeBoxes().size(), 1U);
    const auto start = std::chrono::steady_clock::now();
    window.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
    EXPECT_EQ(directory_.read("numbers.csv"), row(1));
    EXPECT_FALSE(GlobalStorage::getInstance().getSnFile().isInUse());
}

TEST_F(HurriedSerialBurnPageTest, ARowWithoutANumberIsUsedUpByOneDevice) {
    prepareSerial();
    importNumbers(",0\r\n" + row(2));
    VirtualSerialDevice& first = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！"));
    EXPECT_EQ(hands->tileNamed(nameOf(0)).status, "烧录成功！");
    EXPECT_TRUE(holdsAll(first, ""));
    EXPECT_EQ(first.flash().writtenRanges().size(), 2U);
    VirtualSerialDevice& second = plugSerial(1);
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-2"));
    EXPECT_TRUE(holdsAll(second, "SN-2"));
    EXPECT_EQ(directory_.read("numbers.csv"), ",1\r\n" + row(2, true));
    arrive(second);
    ASSERT_TRUE(shows(1, "SN号已耗尽，请导入新的SN号！"));
    EXPECT_EQ(hands->tileNamed(nameOf(1)).percent, 0);
    EXPECT_THAT(contentOf("log/run.log"),
                testing::ContainsRegex("W/SerialAvatar.*the row of the list has no number"));
}

TEST_F(HurriedSerialBurnPageTest, ARowWithoutANumberIsFreeAgainBehindAFailedBurn) {
    prepareSerial();
    importNumbers(",0\r\n");
    plugSerial(0).addFault({SerialFaultPoint::kMd5, SerialFault::wrongDigest()});
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(ends(0));
    EXPECT_EQ(directory_.read("numbers.csv"), ",0\r\n");
    EXPECT_FALSE(hands->tileNamed(nameOf(0)).status.startsWith("烧录成功！"));
    EXPECT_FALSE(storage_.getSnFile().isInUse());
}

TEST_F(HurriedSerialBurnPageTest, StaysAwakeAndBurningWhenTheUsbPageRefusesToCome) {
    prepareSerial();
    ASSERT_TRUE(hands->press("开始烧录"));
    bus.fail(simulator::UsbOperation::kList, libusbk::kGeneralFailure, 0, 2);
    prompts_.answer(true);
    ASSERT_TRUE(hands->press("USB烧录"));
    EXPECT_EQ(prompts_.takeBoxes(),
              std::vector<Box>(
                  {{"进入其他页将会停止烧录，确认吗？", "烧录进行中", BoxType::kWarningOkCancel},
                   notice("检测到libusb驱动未安装，请先安装驱动")}));
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    plugSerial(0);
    ASSERT_TRUE(shows(0, "烧录成功！"));
    // The same page in the next run.
    ASSERT_TRUE(hands->press("停止烧录"));
    ASSERT_TRUE(hands->press("USB烧录"));
    EXPECT_EQ(prompts_.takeBoxes().size(), 1U);
    ASSERT_TRUE(hands->press("开始烧录"));
    plugSerial(1);
    ASSERT_TRUE(shows(1, "烧录成功！"));
}

TEST_F(SerialBurnPageTest, FindsItsPortAgainWhenItIsStoppedAndStartedAtOnce) {
    prepareSerial();
    importNumbers(row(1) + row(2));
    // The stopped run holds the port until its exchange is over.
    plugSerial(0, {.romStartUp = 900ms});
    plugSerial(1, {.romStartUp = 900ms});
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, kPreparing));
    ASSERT_TRUE(hands->press("停止烧录"));
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-"));
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-"));
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true));
}

TEST_F(HurriedSerialBurnPageTest, TellsLogAndRecordHowEachBurnEnds) {
    prepareSerial();
    importNumbers(row(1) + row(2) + row(3));
    plugSerial(0);
    plugSerial(1).addFault({SerialFaultPoint::kChangeBaudrate, SerialFault::refuse(1, 0), 0, 7});
    plugSerial(2, {.romStartUp = 600s});
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    ASSERT_TRUE(shows(1, "出错, code=-2"));
    leave(*serialDevices[2]);
    ASSERT_TRUE(ends(1));
    ASSERT_TRUE(ends(2));
    const std::string log = contentOf("log/run.log");
    EXPECT_THAT(log, testing::ContainsRegex("I/BurnEnd.*:burned: ttyUSB0, SN=SN-1"));
    EXPECT_THAT(log, testing::ContainsRegex("E/BurnEnd.*:not burned: ttyUSB1, SN=SN-2: CHANGE "
                                            "BAUDRATE, RET=-2, code -2"));
    EXPECT_THAT(log, testing::ContainsRegex("E/BurnEnd.*:not burned: ttyUSB2, SN=SN-3: stopped"));
    EXPECT_EQ(occurrences(log, "burned: ttyUSB"), 3U);
    EXPECT_EQ(recordedAt("ttyUSB0"),
              std::vector<std::string>{R"("","SN-1","0x7ff004","成功","烧录成功！SN=SN-1")"});
    EXPECT_EQ(recordedAt("ttyUSB1"),
              std::vector<std::string>{
                  R"("","SN-2","0x7ff004","失败","出错, code=-2, des=CHANGE BAUDRATE, RET=-2")"});
    EXPECT_THAT(recordedAt("ttyUSB2"),
                testing::ElementsAre(testing::StartsWith(R"("","SN-3","0x7ff004","失败",)")));
}

TEST_F(HurriedSerialBurnPageTest, TellsTheOperatorOnceOfNumbersThatCouldNotBeMarked) {
    prepareSerial();
    importNumbers(row(1) + row(2));
    ASSERT_TRUE(hands->press("开始烧录"));
    // Another program has put a file of its own in the list's place.
    std::filesystem::rename("numbers.csv", "old.csv");
    plugSerial(0);
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    plugSerial(1);
    ASSERT_TRUE(shows(1, "烧录成功！SN=SN-2"));
    const std::vector<Box> boxes = prompts_.takeBoxes();
    ASSERT_EQ(boxes.size(), 1U);
    EXPECT_TRUE(boxes[0].text.startsWith("SN=SN-1 已写入设备，但在SN文件中没有标记！"));
    EXPECT_EQ(directory_.read("old.csv"), row(1) + row(2));
}

TEST_F(SerialBurnPageTest, AStopCutsThePauseShort) {
    prepareSerial();
    VirtualSerialDevice& device = plugSerial(0);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(isInThePause(device));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(hands->press("停止烧录"));
    ASSERT_TRUE(ends(0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

TEST_F(SerialBurnPageTest, TellsOfAPackageThatUnpackingWouldDelete) {
    ASSERT_TRUE(hands->press("串口烧录"));
    std::filesystem::create_directory("uart_temp_image");
    std::filesystem::rename("package.vrk", "uart_temp_image/package.vrk");
    chooseFirmware(pathOf("uart_temp_image/package.vrk"));
    const std::vector<Box> boxes = prompts_.takeBoxes();
    ASSERT_EQ(boxes.size(), 1U);
    EXPECT_TRUE(boxes[0].text.startsWith("固件包位于程序的解压目录中"));
    EXPECT_FALSE(hands->isEnabled("开始烧录"));
    EXPECT_TRUE(std::filesystem::exists("uart_temp_image/package.vrk"));
}

TEST_F(SerialBurnPageTest, APortThatCouldNotBeOpenedForWantOfDescriptorsIsTriedAgain) {
    if (!NoDescriptors::isPossible())
        GTEST_SKIP();
    prepareSerial();
    importNumbers(row(1));
    const VirtualSerialDevice& device = plugSerial(0);
    {
        const NoDescriptors none;
        ASSERT_TRUE(hands->press("开始烧录"));
        ASSERT_TRUE(shows(0, kPreparing));
        EXPECT_TRUE(hasBox("设置无法保存到 global_storage：Too many open files"));
    }
    ASSERT_TRUE(shows(0, "烧录成功！SN=SN-1"));
    EXPECT_TRUE(holdsAll(device, "SN-1"));
}

TEST_F(SerialBurnPageTest, AListThatFailsLeavesThePageUsable) {
    ports.fail("no list");
    prepareSerial();
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_TRUE(canRead(kConnect));
    ASSERT_TRUE(hands->press("停止烧录"));
    EXPECT_TRUE(canRead(kStopped));
}

}  // namespace
