// The USB page in the main window: one device's road from plug-in to success, every failure on its
// tile, and what the operator can do meanwhile.
#include "pages/usb/burnpage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QCoreApplication>
#include <QProgressDialog>
#include <QPushButton>
#include <QRegularExpression>
#include <QTimer>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <latch>
#include <optional>
#include <thread>

#include "pages/windowfixture.h"
#include "platform/process.h"
#include "support/helpers.h"
#include "support/systemlimits.h"
#include "vorlan/burn/burnadmin.h"
#include "window/loadsndialog.h"

using namespace std::chrono_literals;
using simulator::TileView;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::UsbFaultRule;
using simulator::UsbOperation;
using simulator::WindowOperator;

namespace {

// Runs before the mark of a number is put on the disk, on the thread that burns.
std::function<void()> beforeSync = [] {};

}  // namespace

// The linker leads the program's calls here.
extern "C" {
int __real_fdatasync(int descriptor);

int __wrap_fdatasync(int descriptor) {
    beforeSync();
    return __real_fdatasync(descriptor);
}
}

namespace {

const QString kPlugged = "设备已插入！";
const QString kRemoved = "设备已移除！";
const QString kBurned = "烧录成功！";
const QString kUsedUp = "SN号已耗尽，请导入新的SN号！";
const QString kConnect = "请连接待烧录的设备！";
const QString kStopped = "烧录已停止！";

// Slow enough to be caught in the act.
simulator::UsbDeviceOptions slowly() {
    return {.chunkTime = 50ms};
}

// Standard output and error go to the file, for as long as it lives.
class OutputInto {
  public:
    explicit OutputInto(int file) {
        for (std::size_t i = 0; i < kept_.size(); ++i) {
            std::fflush(nullptr);
            kept_[i] = ::dup(static_cast<int>(i) + 1);
            ::dup2(file, static_cast<int>(i) + 1);
        }
    }
    ~OutputInto() {
        std::fflush(nullptr);
        for (std::size_t i = 0; i < kept_.size(); ++i) {
            ::dup2(kept_[i], static_cast<int>(i) + 1);
            ::close(kept_[i]);
        }
        std::clearerr(stdout);
        std::clearerr(stderr);
    }
    OutputInto(const OutputInto&) = delete;
    OutputInto& operator=(const OutputInto&) = delete;

  private:
    std::array<int, 2> kept_{};
};

class BurnPageTest : public WindowFixture {
  protected:
    ~BurnPageTest() override { EXPECT_FALSE(sawBoth) << "hint and tiles at the same time"; }

    bool hintReads(const QString& text) {
        return WindowOperator::waitFor([&] {
            sawBoth = sawBoth || (hands->canRead(text) && !hands->tiles().empty());
            return hands->canRead(text);
        });
    }

    void expectCount(unsigned burned) {
        const QString count = QString::number(countAtStart + burned);
        EXPECT_TRUE(
            WindowOperator::waitFor([&] { return hands->edit("刷机计数")->text() == count; }));
    }

    static std::string deviceAt(int number) { return "USB\\VID_1234&PID_5678\\" + port(number); }

    // How the run log says the burns at a port have ended, without what differs from run to run.
    static std::vector<std::string> endsAt(int number) {
        std::vector<std::string> ends;
        std::istringstream log(contentOf("log/run.log"));
        const std::string device = deviceAt(number) + ", ";
        for (std::string line; std::getline(log, line);) {
            const std::size_t at = line.find(device);
            const std::size_t message = line.find(" :");
            if (line.find("burned: ") != std::string::npos && at != std::string::npos)
                ends.push_back(line.substr(message + 2, at - message - 2) +
                               line.substr(at + device.size()));
        }
        return ends;
    }

    static testing::AssertionResult endsLike(int number, const std::string& end) {
        if (WindowOperator::waitFor([&] { return !endsAt(number).empty(); }) &&
            endsAt(number).size() == 1 && endsAt(number)[0].starts_with(end))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << testing::PrintToString(endsAt(number));
    }

    const unsigned countAtStart = GlobalStorage::getInstance().getFlashCount();
    bool sawBoth = false;
};

TEST_F(BurnPageTest, TilesStandInTwoColumnsOfEight) {
    ASSERT_TRUE(hands->press("USB烧录"));
    // The first control of a tile stands 4 and 2 pixels inside it.
    const auto corner = [&](int tile) {
        return window->findChild<QLineEdit*>(QString::number(10'000 + 4 * tile))->pos();
    };
    const QSize area = window->findChild<QLineEdit*>("10000")->parentWidget()->size();
    const int height = (area.height() - 24) / 8;
    EXPECT_EQ(corner(0), QPoint(4, 2));
    EXPECT_EQ(corner(1), QPoint(area.width() / 2 + 4, 2));
    EXPECT_EQ(corner(2), QPoint(4, height + 2));
    EXPECT_EQ(corner(15), QPoint(area.width() / 2 + 4, 7 * height + 2));
}

TEST_F(BurnPageTest, BurnsADeviceFromPlugInToRemoval) {
    prepare();
    importNumbers(row(1, true) + row(2) + row(3));
    ASSERT_TRUE(hands->type(hands->edit("SN烧录地址"), "0x6ff000"));
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_FALSE(hands->isEnabled("选择固件"));
    EXPECT_FALSE(hands->edit("SN烧录地址")->isEnabled());
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    EXPECT_TRUE(hintReads(kConnect));

    const auto device = plug(1, makeDevice({.romStartUp = 500ms, .chunkTime = 30ms}));
    ASSERT_TRUE(reads(1, kPlugged));
    EXPECT_FALSE(hands->canRead(kConnect));
    EXPECT_EQ(hands->tiles()[0].name, "USB\\VID_1234&PID_5678\\0-1");
    EXPECT_TRUE(hands->tiles()[0].active);
    for (int i = 1; i < 16; ++i) {
        EXPECT_EQ(hands->tiles()[static_cast<std::size_t>(i)].name,
                  "DEV " + QString::number(i + 1));
        EXPECT_FALSE(hands->tiles()[static_cast<std::size_t>(i)].active);
    }
    ASSERT_TRUE(readsLike(1, "正在写入 .\\temp_image\\master.bin, 进度 "));
    const TileView burning = tile(1);
    EXPECT_TRUE(burning.status.endsWith(" " + QString::number(burning.percent) + "%"));

    ASSERT_TRUE(reads(1, kBurned + "SN=SN-2"));
    EXPECT_TRUE(tile(1).active);
    EXPECT_EQ(tile(1).percent, 100);
    expectCount(1);
    EXPECT_TRUE(isBurned(*device, ""));
    EXPECT_TRUE(device->flash().holds(0x6FF000, bytesOf("SN-2")));
    EXPECT_EQ(recordedAt(deviceAt(1)),
              std::vector<std::string>{R"("","SN-2","0x6ff000","成功","烧录成功！SN=SN-2")"});
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));

    bus.unplug(port(1));
    EXPECT_TRUE(hintReads(kConnect));
    EXPECT_TRUE(hands->tiles().empty());
    // A second device brings the tiles up again; the first port's tile is still its own.
    plug(2);
    ASSERT_TRUE(reads(2, kBurned + "SN=SN-3"));
    EXPECT_EQ(hands->tiles()[1].name, "USB\\VID_1234&PID_5678\\0-2");
    EXPECT_EQ(tile(1).status, kRemoved);
    EXPECT_EQ(tile(1).percent, 0);
    EXPECT_FALSE(tile(1).active);
    const auto unnumbered = plug(1);
    ASSERT_TRUE(reads(1, kUsedUp));
    EXPECT_EQ(hands->tiles()[0].name, "USB\\VID_1234&PID_5678\\0-1");
    // By the time that the next one has come as far, the first would be in its burn.
    plug(3);
    ASSERT_TRUE(reads(3, kUsedUp));
    EXPECT_EQ(tile(1).status, kUsedUp);
    EXPECT_EQ(tile(1).percent, 0);
    EXPECT_TRUE(unnumbered->flash().writtenRanges().empty());
    expectCount(2);
}

TEST_F(BurnPageTest, BurnsWithoutNumbersAndWithTheProgramsOwnBurner) {
    simulator::PackageBuilder()
        .add("flashboot.bin", flashboot)
        .add("master.bin", master)
        .write("package.vrk");
    writeContent("images/burner.img", std::string(5000, 'b'));
    prepareAndStart();
    const auto device = plug(1);
    ASSERT_TRUE(reads(1, kBurned));
    expectCount(1);
    EXPECT_TRUE(isBurned(*device, ""));
    EXPECT_EQ(device->flash().writtenRanges().size(), 2U);
    ASSERT_TRUE(hands->press("停止烧录"));
    EXPECT_FALSE(hands->edit("SN烧录地址")->isEnabled());
}

TEST_F(BurnPageTest, ComesBackWithTheNumberFileOfAnEarlierRun) {
    ASSERT_TRUE(hands->press("USB烧录"));
    importNumbers(row(1));
    for (const bool deleted : {false, true}) {
        window.reset();
        forgetSettings();
        if (deleted)
            std::filesystem::remove("numbers.csv");
        openWindow();
        ASSERT_TRUE(hands->press("USB烧录"));
        EXPECT_EQ(hands->edit("SN路径")->text(), deleted ? QString() : pathOf("numbers.csv"));
        EXPECT_EQ(hands->edit("SN路径")->isEnabled(), !deleted);
        EXPECT_EQ(hands->edit("SN烧录地址")->isEnabled(), !deleted);
    }
}

TEST_F(BurnPageTest, ShowsEachFailureAndFreesItsNumber) {
    prepare();
    importNumbers(row(1) + row(2) + row(3) + row(4));
    ASSERT_TRUE(hands->press("开始烧录"));

    const auto failing = [](UsbFaultRule rule) {
        auto device = makeDevice();
        device->addFault(std::move(rule));
        return device;
    };
    // No number is drawn in the ROM stage.
    plug(1, failing({UsbFaultPoint::kMemData, UsbFault::romStatus(0xF1)}));
    ASSERT_TRUE(reads(1, "error=0xf1, des=Return Fatal Error! (retries = 0)"));
    EXPECT_TRUE(endsLike(1, "not burned: no number: MEM_DATA: Return Fatal Error! (retries = 0)"));
    EXPECT_TRUE(tile(1).active);

    // What the agent reports frees the number at once: each of these gets the first one.
    plug(2, failing({UsbFaultPoint::kSync, UsbFault::silence(), 0, UsbFaultRule::kAlways}));
    ASSERT_TRUE(readsLike(2, "出错, code=-2, des="));
    EXPECT_TRUE(endsLike(2, "not burned: SN=SN-1: code=-2, Failed to sync device!"));
    EXPECT_FALSE(tile(2).active);
    const auto unopened = makeDevice({.romStartUp = 300ms});
    plug(3, unopened);
    ASSERT_TRUE(reads(3, kPlugged));
    bus.fail(UsbOperation::kOpen, libusbk::kAccessDenied);
    ASSERT_TRUE(readsLike(3, "出错, code=-1, des="));
    EXPECT_FALSE(tile(3).active);
    std::filesystem::rename("temp_image/master.bin", "kept.bin");
    std::filesystem::create_directory("temp_image/master.bin");
    plug(4);
    ASSERT_TRUE(readsLike(4, "出错, code=-3, des="));
    std::filesystem::remove("temp_image/master.bin");
    std::filesystem::rename("kept.bin", "temp_image/master.bin");

    // A refused command is not reported: the last progress stays, and the number with it.
    const auto refusing = failing({UsbFaultPoint::kChunk, UsbFault::error("worn out"), 3});
    plug(5, refusing);
    ASSERT_TRUE(
        WindowOperator::waitFor([&] { return refusing->count(UsbFaultPoint::kDescription); }));
    ASSERT_TRUE(readsLike(5, "正在写入 .\\temp_image\\"));
    EXPECT_TRUE(
        endsLike(5, "not burned: SN=SN-1: a command failed at .\\temp_image\\master.bin, "));
    EXPECT_TRUE(tile(5).active);
    // The device that gave it back before has no claim on it any more.
    bus.unplug(port(2));
    ASSERT_TRUE(reads(2, kRemoved));
    plug(6);
    ASSERT_TRUE(reads(6, kBurned + "SN=SN-2"));
    EXPECT_TRUE(endsLike(6, "burned: SN=SN-2"));
    bus.unplug(port(5));
    ASSERT_TRUE(reads(5, kRemoved));
    plug(5);
    ASSERT_TRUE(reads(5, kBurned + "SN=SN-1"));
    // A device that leaves in its burn gives its number back.
    plug(7, makeDevice(slowly()));
    ASSERT_TRUE(readsLike(7, "正在写入"));
    bus.unplug(port(7));
    ASSERT_TRUE(reads(7, kRemoved));
    EXPECT_TRUE(endsLike(7, "not burned: SN=SN-3: "));
    EXPECT_EQ(tile(7).percent, 0);
    plug(7);
    ASSERT_TRUE(reads(7, kBurned + "SN=SN-3"));
    expectCount(3);
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3, true) + row(4));
}

TEST_F(BurnPageTest, MarksAndRecordsTheNumberBeforeTheTileTellsSuccess) {
    prepare();
    importNumbers(row(1) + row(2));
    ASSERT_TRUE(hands->press("开始烧录"));
    std::latch recorded(1);
    std::latch seen(1);
    beforeSync = [&] {
        if (!contentOf("log/record.csv").empty() && !recorded.try_wait())
            recorded.count_down();
        else
            return;
        seen.wait();
    };
    plug(1);
    EXPECT_TRUE(WindowOperator::waitFor([&] { return recorded.try_wait(); }));
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2));
    // This shows what the first tile has been told as well.
    plug(2, makeDevice({.romStartUp = 60s}));
    EXPECT_TRUE(reads(2, kPlugged));
    EXPECT_TRUE(tile(1).status.startsWith("正在写入 SN=SN-1"));
    seen.count_down();
    EXPECT_TRUE(reads(1, kBurned + "SN=SN-1"));
    expectCount(1);
    EXPECT_TRUE(hands->press("停止烧录"));
    beforeSync = [] {};
}

TEST_F(BurnPageTest, ADeviceThatIsReadyASecondTimeIsNotBurnedAgain) {
    prepare();
    importNumbers(row(1) + row(2));
    ASSERT_TRUE(hands->press("开始烧录"));
    plug(1);
    ASSERT_TRUE(reads(1, kBurned + "SN=SN-1"));
    BURN_SESSION again;
    again.device_id = deviceAt(1);
    for (QWidget* const widget : window->findChildren<QWidget*>()) {
        if (auto* const page = dynamic_cast<CBurnPage*>(widget))
            page->onBurnerReady(&again);
    }
    expectCount(1);
    EXPECT_EQ(tile(1).status, kBurned + "SN=SN-1");
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2));
    EXPECT_FALSE(storage_.getSnFile().isInUse());
}

TEST_F(BurnPageTest, BurnsARowWithoutANumberAndGoesOnToTheNext) {
    prepare();
    importNumbers(",0\r\n" + row(2));
    ASSERT_TRUE(hands->press("开始烧录"));
    const auto unnumbered = plug(1);
    ASSERT_TRUE(reads(1, kBurned));
    EXPECT_TRUE(isBurned(*unnumbered, ""));
    EXPECT_EQ(unnumbered->flash().writtenRanges().size(), 2U);
    EXPECT_EQ(directory_.read("numbers.csv"), ",1\r\n" + row(2));
    const std::string log = contentOf("log/run.log");
    EXPECT_THAT(log, testing::ContainsRegex("W/BurnAvatar.*a row without a number.*0-1"));
    plug(2);
    ASSERT_TRUE(reads(2, kBurned + "SN=SN-2"));
    EXPECT_EQ(directory_.read("numbers.csv"), ",1\r\n" + row(2, true));
    expectCount(2);
}

TEST_F(BurnPageTest, TellsLogAndRecordOnceOfWhatHasNeverBegunOrWasCutOff) {
    prepare();
    importNumbers(row(1));
    ASSERT_TRUE(hands->press("开始烧录"));
    std::filesystem::rename("temp_image/burner.img", "kept.img");
    plug(1);
    EXPECT_TRUE(endsLike(1, "not burned: no number: CANNOT open file .\\temp_image\\burner.img"));
    std::filesystem::rename("kept.img", "temp_image/burner.img");
    plug(2, makeDevice({.romStartUp = 60s}));
    ASSERT_TRUE(reads(2, kPlugged));
    bus.unplug(port(2));
    EXPECT_TRUE(endsLike(2, "not burned: no number: stopped or unplugged in the ROM stage"));
    plug(3, makeDevice(slowly()));
    ASSERT_TRUE(readsLike(3, "正在写入"));
    plug(4);
    EXPECT_TRUE(endsLike(4, "not burned: no number: the serial numbers are used up"));
    ASSERT_TRUE(hands->press("停止烧录"));
    EXPECT_TRUE(endsLike(3, "not burned: SN=SN-1: stopped or unplugged at "));
    // The stop told of none a second time.
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(endsAt(i).size(), 1U) << i;
        const auto rows = recordedAt(deviceAt(i));
        ASSERT_EQ(rows.size(), 1U) << i;
        EXPECT_THAT(rows[0], testing::HasSubstr("\"失败\"")) << i;
    }
    EXPECT_THAT(recordedAt(deviceAt(1))[0], testing::EndsWith("\"设备已插入！\""));
    EXPECT_THAT(recordedAt(deviceAt(3))[0],
                testing::StartsWith("\"\",\"SN-1\",\"0x7ff004\",\"失败\",\"正在写入"));
    EXPECT_THAT(recordedAt(deviceAt(4))[0],
                testing::StartsWith("\"\",\"\",\"\",\"失败\",\"SN号已耗尽"));
}

TEST_F(BurnPageTest, TellsOfANumberThatIsInADeviceButNotInItsFile) {
    prepare();
    // The process remembers the number as burned: no other test may use it.
    importNumbers(row(901));
    ASSERT_TRUE(hands->press("开始烧录"));
    writeContent("numbers.csv", row(901));  // somebody has put another in its place
    plug(1);
    ASSERT_TRUE(reads(1, kBurned + "SN=SN-901"));
    EXPECT_TRUE(hasBox("SN=SN-901 已写入设备，但在SN文件中没有标记！"));
}

TEST_F(BurnPageTest, TellsOfAMissingBurnerImageAtEachStart) {
    simulator::PackageBuilder()
        .add("flashboot.bin", flashboot)
        .add("master.bin", master)
        .write("package.vrk");
    prepare();
    const Box missing{"打不开burner镜像，设备将无法烧录！\n路径：" + pathOf("images/burner.img"),
                      "提示", BoxType::kPlain};
    for (const bool there : {false, false, true}) {
        if (there)
            writeContent("images/burner.img", std::string(5000, 'b'));
        ASSERT_TRUE(hands->press("开始烧录"));
        EXPECT_TRUE(hintReads(kConnect));
        EXPECT_EQ(prompts_.takeBoxes(), there ? std::vector<Box>() : std::vector<Box>({missing}));
        ASSERT_TRUE(hands->press("停止烧录"));
    }
}

TEST_F(BurnPageTest, ReadsTheAddressAsAPersonWritesIt) {
    prepare();
    importNumbers(row(1));
    for (const char* const wrong : {"", "0", "zz", "0x"}) {
        ASSERT_TRUE(hands->type(hands->edit("SN烧录地址"), wrong));
        ASSERT_TRUE(hands->press("开始烧录"));
        EXPECT_EQ(prompts_.takeBoxes(),
                  std::vector<Box>({notice("地址格式错误，请输入16进制地址！")}));
        EXPECT_TRUE(hands->isEnabled("开始烧录"));
        EXPECT_TRUE(hands->isEnabled("选择固件"));
    }
    EXPECT_EQ(GlobalStorage::getInstance().getSnBurnAddr(), kSnAddress);
    const std::vector<std::pair<const char*, std::uint32_t>> right = {
        {"0x7ff008", 0x7FF008}, {"7FF00C ", 0x7FF00C}, {"FFFFFFFF", 0x7FFFFFFF}};
    for (const auto& [text, value] : right) {
        ASSERT_TRUE(hands->type(hands->edit("SN烧录地址"), text));
        ASSERT_TRUE(hands->press("开始烧录"));
        EXPECT_EQ(GlobalStorage::getInstance().getSnBurnAddr(), value);
        GlobalStorage stored;
        ASSERT_TRUE(stored.load());
        EXPECT_EQ(stored.getSnBurnAddr(), value);
        EXPECT_EQ(stored.getSnFilePath(), pathOf("numbers.csv").toStdWString());
        ASSERT_TRUE(hands->press("停止烧录"));
        EXPECT_TRUE(hintReads(kStopped));
        EXPECT_TRUE(hands->edit("SN烧录地址")->isEnabled());
    }
}

TEST_F(BurnPageTest, RefusesWhatIsNoPackageAndGoesOn) {
    const Box invalid{"无效的固件!", "提示", BoxType::kPlain};
    ASSERT_TRUE(hands->press("USB烧录"));
    EXPECT_EQ(hands->edit("SN烧录地址")->text(), "0x7ff004");
    EXPECT_FALSE(hands->edit("SN烧录地址")->isEnabled());
    EXPECT_FALSE(hands->canRead("请连接待烧录的USB设备！"));
    prompts_.choose(std::nullopt);
    ASSERT_TRUE(hands->press("选择固件"));
    EXPECT_EQ(hands->edit("固件路径")->text(), "请选择固件");
    EXPECT_FALSE(hands->edit("固件路径")->isEnabled());
    EXPECT_FALSE(hands->isEnabled("开始烧录"));

    const std::string whole = contentOf("package.vrk");
    writeContent("torn.vrk", whole.substr(0, whole.size() / 2));
    chooseFirmware(pathOf("torn.vrk"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({invalid}));
    EXPECT_EQ(hands->edit("固件路径")->text(), pathOf("torn.vrk"));
    EXPECT_TRUE(hands->edit("固件路径")->isEnabled());
    EXPECT_FALSE(hands->isEnabled("开始烧录"));

    const std::string odd = "固件 包/" + std::string(250, 'p') + "/";
    for (const std::string& path :
         {std::string("package.vrk"), odd + "a b.vrk", std::string("none.zip")}) {
        if (path == odd + "a b.vrk")
            writeContent(path, contentOf("package.vrk"));
        chooseFirmware(pathOf(path));
        const bool valid = path != "none.zip";
        EXPECT_EQ(prompts_.takeBoxes(), valid ? std::vector<Box>() : std::vector<Box>({invalid}));
        EXPECT_EQ(hands->isEnabled("开始烧录"), valid);
    }
    EXPECT_EQ(prompts_.takeFilters(), std::vector<QString>(5, "刷机固件(*.vrk *.zip)"));
}

TEST_F(BurnPageTest, UnpackingALargePackageCanBeCancelled) {
    simulator::PackageBuilder large;
    large.add("flashboot.bin", flashboot).add("master.bin", master);
    for (int i = 0; i < 90'000; ++i)
        large.add("more" + std::to_string(i), "");
    large.write("large.vrk");
    prepare();
    ASSERT_TRUE(hands->isEnabled("开始烧录"));

    QTimer operatorsEye;
    QObject::connect(&operatorsEye, &QTimer::timeout, [&] {
        auto* const box = window->findChild<QProgressDialog*>();
        if (box == nullptr || !box->isVisible())
            return;
        EXPECT_EQ(box->labelText(), "正在解压固件……");
        EXPECT_EQ(QApplication::activeModalWidget(), box) << "the window takes orders";
        box->findChild<QPushButton*>()->click();
        operatorsEye.stop();
    });
    operatorsEye.start(10);
    chooseFirmware(pathOf("large.vrk"));
    EXPECT_FALSE(operatorsEye.isActive()) << "no box came";
    EXPECT_EQ(hands->edit("固件路径")->text(), "请选择固件");
    EXPECT_FALSE(hands->isEnabled("开始烧录"));
    EXPECT_FALSE(std::filesystem::exists("temp_image/more89999"));

    chooseFirmware(pathOf("package.vrk"));
    EXPECT_TRUE(hands->isEnabled("开始烧录"));
}

TEST_F(BurnPageTest, TellsWhatIsWrongWithANumberFile) {
    const Box wrong = notice(
        "文件解析失败，请检查文件格式：必须是以半角','分隔，\n每行两列且以CRLF结尾的csv文件！");
    ASSERT_TRUE(hands->press("USB烧录"));
    importNumbers(row(1));
    const std::wstring good = pathOf("numbers.csv").toStdWString();
    writeContent("no-list.csv", "x\r\n");
    writeContent("read-only.csv", row(5));
    std::filesystem::permissions("read-only.csv", std::filesystem::perms::others_read);
    std::optional<OrdinaryUser> user(std::in_place);

    const auto shown = [&] { return hands->edit("SN路径")->text(); };
    prompts_.choose(pathOf("vanished.csv"));
    ASSERT_TRUE(hands->press("导入SN"));
    EXPECT_EQ(shown(), pathOf("numbers.csv"));
    // Neither the vanished one nor the one that cannot be marked takes the place of the good one.
    prompts_.choose(pathOf("read-only.csv"));
    ASSERT_TRUE(hands->press("导入SN"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({wrong}));
    EXPECT_TRUE(GlobalStorage::getInstance().getSnFile().isLoaded());
    EXPECT_EQ(shown(), pathOf("numbers.csv"));
    EXPECT_TRUE(hands->edit("SN烧录地址")->isEnabled());
    user.reset();
    // What cannot be parsed does, and then no numbers are written.
    prompts_.choose(pathOf("no-list.csv"));
    ASSERT_TRUE(hands->press("导入SN"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({wrong}));
    EXPECT_EQ(shown(), "");
    EXPECT_FALSE(hands->edit("SN烧录地址")->isEnabled());
    EXPECT_EQ(GlobalStorage::getInstance().getSnFilePath(), good);
    prompts_.choose(std::nullopt);
    ASSERT_TRUE(hands->press("导入SN"));
    EXPECT_EQ(prompts_.takeFilters(), std::vector<QString>(5, "SN文件(*.csv)"));
}

TEST_F(BurnPageTest, GoesOnInADirectoryThatCannotBeWritten) {
    prepare();
    importNumbers(row(1));
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0555));
    {
        const OrdinaryUser user;
        ASSERT_TRUE(hands->press("开始烧录"));
        plug(1);
        EXPECT_TRUE(hasBox("设置无法保存到 global_storage："));
        ASSERT_TRUE(reads(1, kBurned + "SN=SN-1"));
        // Another run does not tell the same again.
        ASSERT_TRUE(hands->press("停止烧录"));
        ASSERT_TRUE(hands->press("开始烧录"));
        QCoreApplication::processEvents();
        EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>());
        ASSERT_TRUE(hands->press("保存标签"));
        EXPECT_TRUE(hasBox("端口标签无法保存到tag_map！"));
        // Whoever tries again is told again.
        ASSERT_TRUE(hands->press("保存标签"));
        EXPECT_TRUE(hasBox("端口标签无法保存到tag_map！"));
        // The same when the window closes, before it is gone.
        prompts_.answer(true);
        EXPECT_TRUE(window->close());
        EXPECT_TRUE(hasBox("端口标签无法保存到tag_map！"));
    }
    std::filesystem::permissions(directory_.path(), std::filesystem::perms::owner_all);
    const std::string log = contentOf("log/run.log");
    EXPECT_THAT(log, testing::HasSubstr("the settings cannot be saved"));
    EXPECT_THAT(log, testing::HasSubstr("cannot be saved to tag_map"));
}

TEST_F(BurnPageTest, BurnsOnWithoutARecordAndTellsSoOnce) {
    prepareAndStart();
    std::filesystem::create_directories("log/record.csv");
    for (int i = 1; i <= 2; ++i) {
        plug(i);
        ASSERT_TRUE(reads(i, kBurned));
    }
    EXPECT_TRUE(hasBox("生产记录 log\\record.csv 无法写入！\n原因："));
    EXPECT_EQ(otherBoxes(), std::vector<QString>());
    EXPECT_EQ(occurrences(contentOf("log/run.log"), "not in the record: USB\\VID"), 2U);
}

TEST_F(BurnPageTest, OutOfDescriptorsItBurnsNothingAndLosesNothing) {
    if (!NoDescriptors::isPossible())
        GTEST_SKIP();
    prepare();
    importNumbers(row(1));
    {
        const NoDescriptors none;
        ASSERT_TRUE(hands->press("开始烧录"));
        plug(1);
        ASSERT_TRUE(reads(1, "设备已插入！"));
        EXPECT_TRUE(hasBox("设置无法保存到 global_storage：Too many open files"));
        EXPECT_TRUE(hasBox("打不开burner镜像，设备将无法烧录！"));
        EXPECT_TRUE(hasBox("生产记录 log\\record.csv 无法写入！\n原因：Too many open files"));
    }
    EXPECT_TRUE(endsLike(1, "not burned: no number: CANNOT open file"));
    bus.unplug(port(1));
    EXPECT_TRUE(hintReads(kConnect));
    plug(1);
    ASSERT_TRUE(reads(1, kBurned + "SN=SN-1"));
    EXPECT_EQ(contentOf("numbers.csv"), row(1, true));
}

TEST_F(BurnPageTest, ShowsWhatTheNumberDialogHasStoredWhenThatCloses) {
    prepare();
    writeContent("numbers.csv", row(1));
    ASSERT_TRUE(hands->press("导入SN号"));
    auto* const dialog = window->findChild<LoadSnDialog*>();
    ASSERT_NE(dialog, nullptr);
    simulator::WindowOperator inDialog(*dialog);
    prompts_.choose(pathOf("numbers.csv"));
    ASSERT_TRUE(inDialog.press("导入SN号"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({notice("导入成功")}));
    ASSERT_TRUE(inDialog.type(inDialog.edit("SN烧录地址"), "7F0000"));
    ASSERT_TRUE(inDialog.press("设置"));
    dialog->close();
    EXPECT_EQ(hands->edit("SN路径")->text(), pathOf("numbers.csv"));
    EXPECT_TRUE(hands->edit("SN烧录地址")->isEnabled());
    EXPECT_EQ(hands->edit("SN烧录地址")->text(), "0x7f0000");
    // The start writes back what the page shows.
    ASSERT_TRUE(hands->press("开始烧录"));
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x7F0000U);
}

TEST_F(BurnPageTest, StaysWithABurnUnlessItIsToStop) {
    const Box question{"进入其他页将会停止烧录，确认吗？", "烧录进行中", BoxType::kWarningOkCancel};
    prepareAndStart();
    plug(1, makeDevice(slowly()));
    ASSERT_TRUE(readsLike(1, "正在写入"));

    ASSERT_TRUE(hands->press("导入SN"));
    ASSERT_TRUE(hands->press("导入SN号"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>(2, notice("正在烧录中，不能导入！")));
    prompts_.answer(false);
    ASSERT_TRUE(hands->press("主页"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({question}));
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    EXPECT_TRUE(tile(1).status.startsWith("正在写入"));

    prompts_.answer(true);
    ASSERT_TRUE(hands->press("主页"));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({question}));
    EXPECT_TRUE(hands->isEnabled("安装USB驱动"));
    EXPECT_EQ(BurnAdmin::peekInstance(), nullptr);
    // Idle, the page may be left without a question.
    ASSERT_TRUE(hands->press("USB烧录"));
    EXPECT_TRUE(hintReads(kStopped));
    ASSERT_TRUE(hands->press("串口烧录"));
}

TEST_F(BurnPageTest, BurnsWithAnOutputThatIsClosedOrFull) {
    platform::surviveClosedPipes();
    prepareAndStart();
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    bool burned[] = {false, false};
    for (const int number : {1, 2}) {
        // What fails meanwhile could not be read.
        const OutputInto output(number == 1 ? ends[1] : full);
        plug(number);
        burned[number - 1] = bool(reads(number, kBurned));
    }
    ::close(ends[1]);
    ::close(full);
    EXPECT_THAT(burned, testing::Each(true));
}

TEST_F(BurnPageTest, AsksBeforeTheWindowCloses) {
    const Box question{"关闭软件将会造成正在烧录的固件烧录\n失败，确认关闭吗？", "烧录进行中",
                       BoxType::kWarningOkCancel};
    prepare();
    importNumbers(row(1));
    ASSERT_TRUE(hands->press("开始烧录"));
    plug(1, makeDevice(slowly()));
    ASSERT_TRUE(readsLike(1, "正在写入"));
    ASSERT_TRUE(hands->typeTag(0, "left bench"));

    prompts_.answer(false);
    EXPECT_FALSE(window->close());
    EXPECT_TRUE(window->isVisible());
    EXPECT_TRUE(hands->isEnabled("停止烧录"));
    EXPECT_FALSE(std::filesystem::exists("tag_map"));

    prompts_.answer(true);
    EXPECT_TRUE(window->close());
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>(2, question));
    EXPECT_EQ(BurnAdmin::peekInstance(), nullptr);
    UsbTagMap saved;
    saved.load();
    EXPECT_EQ(saved.findTag(L"\\0-1").tag, L"left bench");
    EXPECT_EQ(directory_.read("numbers.csv"), row(1));
    EXPECT_THAT(recordedAt(deviceAt(1)),
                testing::ElementsAre(testing::StartsWith("\"left bench\",\"SN-1\"")));
}

TEST_F(BurnPageTest, KeepsTheLabelsOfPortsOverARestart) {
    const QString longLabel(1000, QChar('x'));
    prepareAndStart();
    plug(1);
    plug(2);
    ASSERT_TRUE(reads(1, kBurned));
    ASSERT_TRUE(reads(2, kBurned));
    ASSERT_TRUE(hands->typeTag(0, "左 <b>1</b>"));
    ASSERT_TRUE(hands->typeTag(1, longLabel));
    ASSERT_TRUE(hands->press("保存标签"));
    // What was not saved is gone when the port's next device comes.
    ASSERT_TRUE(hands->typeTag(0, "forgotten"));
    bus.unplug(port(1));
    ASSERT_TRUE(reads(1, kRemoved));
    EXPECT_EQ(tile(1).tag, "forgotten");
    plug(1);
    ASSERT_TRUE(reads(1, kBurned));
    EXPECT_EQ(tile(1).tag, "左 <b>1</b>");
    ASSERT_TRUE(hands->press("停止烧录"));

    window.reset();
    bus.unplug(port(1));
    bus.unplug(port(2));
    openWindow();
    ASSERT_TRUE(hands->press("USB烧录"));
    const std::string before = contentOf("tag_map");
    ASSERT_TRUE(hands->press("保存标签"));
    EXPECT_EQ(contentOf("tag_map"), before);  // no device yet: nothing is lost
    prepareAndStart();
    plug(2);
    ASSERT_TRUE(reads(2, kBurned));
    EXPECT_EQ(tile(2).tag, longLabel);
    EXPECT_EQ(hands->tiles()[0].name, "USB\\VID_1234&PID_5678\\0-2");
    plug(3);
    ASSERT_TRUE(reads(3, kBurned));
    EXPECT_EQ(tile(3).tag, "");
    ASSERT_TRUE(hands->press("保存标签"));
    UsbTagMap saved;
    saved.load();
    EXPECT_EQ(saved.findTag(L"\\0-1").index, -1);  // not seen in this run
    EXPECT_EQ(saved.findTag(L"\\0-2").index, 0);
    EXPECT_EQ(saved.findTag(L"\\0-3").index, 1);
}

TEST_F(BurnPageTest, KeepsLabelsThatAreSavedWhileTheirDevicesArrive) {
    UsbTagMap before;
    before.storeTag(L"\\0-1", {0, L"\\0-1", L"left"});
    ASSERT_TRUE(before.save());
    CBurnPage page;
    page.OnInitDialog();
    std::atomic<bool> saved{false};
    std::thread arrivals([&] {
        BURN_SESSION session;
        session.device_id = "USB\\VID_1234&PID_5678\\0-1";
        while (!saved)
            page.onPlug(&session);
    });
    for (int i = 0; i < 100; ++i)
        page.saveTags();
    saved = true;
    arrivals.join();
    UsbTagMap after;
    ASSERT_TRUE(after.load());
    EXPECT_EQ(after.findTag(L"\\0-1").tag, L"left");
}

TEST_F(BurnPageTest, StopsWithDevicesAndTakesThemUpAgainAfterANewStart) {
    prepare();
    importNumbers(row(1) + row(2) + row(3));
    const auto slow = plug(1, makeDevice(slowly()));
    plug(2);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(readsLike(2, kBurned));
    ASSERT_TRUE(readsLike(1, "正在写入"));
    const QString burnedWith = tile(2).status;
    EXPECT_TRUE(WindowOperator::waitFor([] { return BurnPageBase::runningBurns() == 1; }));
    ASSERT_TRUE(hands->press("停止烧录"));
    EXPECT_EQ(BurnPageBase::runningBurns(), 0);
    EXPECT_TRUE(hintReads(kStopped));
    EXPECT_TRUE(hands->tiles().empty());
    EXPECT_TRUE(hands->isEnabled("开始烧录"));
    EXPECT_TRUE(hands->isEnabled("选择固件"));

    // The one that was cut off has its power back and gets the number that it gave back, or the
    // first one. The other one still runs its burner image, which knows nothing of the ROM's
    // messages.
    bus.plug(port(1), slow);
    ASSERT_TRUE(hands->press("开始烧录"));
    ASSERT_TRUE(readsLike(1, kBurned));
    ASSERT_TRUE(readsLike(2, "error=0x4c7, des=Retry WritePipe has reaches max (10)!"));
    EXPECT_NE(tile(1).status, burnedWith);
    expectCount(2);
    EXPECT_EQ(directory_.read("numbers.csv"), row(1, true) + row(2, true) + row(3));
}

TEST_F(BurnPageTest, TellsOfASeventeenthPortWithoutHoldingUpTheOthers) {
    prepareAndStart();
    for (int i = 1; i <= 16; ++i)
        plug(i);
    for (int i = 1; i <= 16; ++i)
        ASSERT_TRUE(reads(i, kBurned));
    for (const int i : {15, 16}) {
        bus.unplug(port(i));
        ASSERT_TRUE(reads(i, kRemoved));
    }
    // While the box is open, another such device comes, which is told when the box has been closed,
    // and the port of a removed one gets a new device.
    bool burnedMeanwhile = false;
    prompts_.whileOpen = [&] {
        prompts_.whileOpen = [] {};
        plug(18);
        EXPECT_TRUE(WindowOperator::waitFor(
            [] { return BurnAdmin::peekInstance()->getSessionCount() == 16; }));
        bus.unplug(port(18));
        plug(16);
        burnedMeanwhile = WindowOperator::waitFor([&] { return tile(16).status == kBurned; });
        EXPECT_EQ(prompts_.takeBoxes().size(), 1U);
    };
    plug(17);
    ASSERT_TRUE(WindowOperator::waitFor([&] { return burnedMeanwhile; }));
    EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({{"avatar is empty", "", BoxType::kPlain}}));
    EXPECT_EQ(tile(17).name, "");
    EXPECT_TRUE(endsLike(17, "not burned: no number: all sixteen tiles belong to other ports"));
    EXPECT_EQ(recordedAt(deviceAt(17)), std::vector<std::string>{"\"\",\"\",\"\",\"失败\",\"\""});
    expectCount(17);
}

TEST_F(BurnPageTest, OpensOnlyWithAWorkingDriver) {
    bus.fail(UsbOperation::kList, libusbk::kGeneralFailure, 0, 2);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(hands->press("USB烧录"));
        EXPECT_EQ(prompts_.takeBoxes(),
                  std::vector<Box>({notice("检测到libusb驱动未安装，请先安装驱动")}));
        EXPECT_TRUE(hands->isEnabled("安装USB驱动"));
    }
    ASSERT_TRUE(hands->press("USB烧录"));
    EXPECT_TRUE(hands->isEnabled("选择固件"));
}

}  // namespace
