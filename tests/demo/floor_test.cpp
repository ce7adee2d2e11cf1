// What a trainer shows an operator with the floor: each trouble, and the text that a tile shows
// for it.
#include "demo/floor/floor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QComboBox>
#include <QTabWidget>
#include <memory>
#include <string>
#include <vector>

#include "demo/operator/windowoperator.h"
#include "simulator/clock/turnedclock.h"
#include "support/firststartfixture.h"
#include "window/vorlanfactorytooldlg.h"

namespace {

using simulator::Floor;
using simulator::WindowOperator;

struct Lesson {
    const char* trouble;
    const char* tile;   // begins so in the end
    const char* holds;  // begins so
};

class FloorTest : private TurnedClock, public FirstStartFixture {
  protected:
    FloorTest() {
        EXPECT_TRUE(goods_.package.writeZip("sample.vrk"));
        writeContent("ramloader/flash_proxy.img", std::string(3000, 'p'));
        writeContent("numbers.csv", "SN-1,0\r\nSN-2,0\r\nSN-3,0\r\n");
        window_.OnInitDialog();
        floor_.show();
    }

    void start(const QString& page) {
        ASSERT_TRUE(operator_.press(page));
        prompts_.choose(pathOf("sample.vrk"));
        ASSERT_TRUE(operator_.press("选择固件"));
        prompts_.choose(pathOf("numbers.csv"));
        ASSERT_TRUE(operator_.press("导入SN"));
        EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>({notice("导入成功")}));
        ASSERT_TRUE(operator_.press("开始烧录"));
    }

    // A lesson for each trouble, one after the other, beside a sound device at the other socket.
    // The number of a device that fails goes to the next one.
    void teach(int tab, const QString& other, const QString& socket,
               const std::vector<Lesson>& lessons) {
        floor_.findChild<QTabWidget*>()->setCurrentIndex(tab);
        floor_.findChildren<QComboBox*>().first()->setCurrentText("快");
        ASSERT_TRUE(trainer_.press("插入 " + other));
        ASSERT_TRUE(tileReads(0, "烧录成功！SN=SN-1"));
        QComboBox* choice = nullptr;
        for (QComboBox* const each : floor_.findChildren<QComboBox*>()) {
            if (each->accessibleName() == socket)
                choice = each;
        }
        ASSERT_NE(choice, nullptr);
        ASSERT_EQ(static_cast<std::size_t>(choice->count()), lessons.size());
        for (const Lesson& lesson : lessons) {
            choice->setCurrentText(lesson.trouble);
            ASSERT_EQ(choice->currentText(), lesson.trouble);
            ASSERT_TRUE(WindowOperator::waitFor([&] { return trainer_.press("插入 " + socket); }))
                << lesson.trouble;
            EXPECT_TRUE(tileReads(1, lesson.tile)) << lesson.trouble;
            EXPECT_TRUE(WindowOperator::waitFor([&] { return holds(lesson.holds); }))
                << lesson.trouble;
            if (trainer_.press("拔出 " + socket)) {
                EXPECT_TRUE(tileReads(1, "设备已移除！")) << lesson.trouble;
            }
        }
    }

    testing::AssertionResult tileReads(std::size_t number, const QString& beginning) {
        QString status;
        if (WindowOperator::waitFor([&] {
                const auto tiles = operator_.tiles();
                status = tiles.size() > number ? tiles[number].status : QString();
                return status.startsWith(beginning);
            }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "it reads " << status.toStdString();
    }

    bool holds(const QString& beginning) const {
        for (const QLabel* const label : floor_.findChildren<QLabel*>()) {
            if (label->isVisible() && label->text().startsWith(beginning))
                return true;
        }
        return false;
    }

    static QString pathOf(const std::string& name) {
        return QString::fromStdString((std::filesystem::current_path() / name).string());
    }

    simulator::FloorGoods goods_{{{{"flashboot.bin", 0x0, simulator::sampleBytes(1, 60'000)},
                                   {"master.bin", 0x10000, simulator::sampleBytes(2, 900'000)}},
                                  simulator::sampleBytes(6, 20'000),
                                  "{}"},
                                 {"SN-1", "SN-2", "SN-3"}};
    Floor floor_{goods_, directory_.path() / "ports"};
    CVorlanFactoryToolDlg window_;
    WindowOperator operator_{window_};
    WindowOperator trainer_{floor_};
};

}  // namespace

TEST_F(FloorTest, EachTroubleOfAUsbDeviceShowsItsText) {
    start("USB烧录");
    teach(0, "USB 1", "USB 2",
          {{"ROM拒绝数据", "error=0xf1, des=Return Fatal Error!", "空"},
           {"ROM不接收数据", "error=0x", "空"},
           {"设备打不开", "出错, code=-1, des=Cannot open device!", "空"},
           {"burner不应答", "出错, code=-2, des=Failed to sync device!", "空"},
           {"flash编程失败", "正在写入", "已写入"},
           {"flash错一位", "正在写入", "已写入"},
           {"中途无应答", "正在写入", "已写入"},
           {"中途断开", "设备已移除！", "已写入"},
           {"无故障", "烧录成功！SN=SN-2", "示例固件完整，SN=SN-2"}});
}

TEST_F(FloorTest, EachTroubleOfASerialDeviceShowsItsText) {
    start("串口烧录");
    teach(1, "ttyUSB0", "ttyUSB1",
          {{"ROM不应答", "出错, code=-1, des=CONNECT WITH ROM TRIGGER ERROR", "空"},
           {"flash proxy不应答", "出错, code=-1, des=HANDSHAKE FAILED", "空"},
           {"拒绝波特率", "出错, code=-2, des=CHANGE BAUDRATE, RET=-2", "空"},
           {"拒绝开始", "出错, code=-2, des=BEGIN COMMAND FORMAT ERROR", "空"},
           {"拒绝数据", "出错, code=-2, des=DATA COMMAND FORMAT ERROR", "已写入"},
           {"中途无应答", "出错, code=-1, des=RECEIVE OVERTIME......", "已写入"},
           {"拒绝校验", "出错, code=-", "示例固件完整"},
           {"MD5不符", "出错, code=-5, des=MD5 CHECK ERROR", "示例固件完整"},
           {"拒绝结束", "出错, code=-2, des=END COMMAND FORMAT ERROR", "示例固件完整"},
           {"线路有噪声", "烧录成功！", "示例固件完整"},
           {"中途断开", "设备已移除！", "已写入"},
           {"无故障", "烧录成功！SN=SN-3", "示例固件完整，SN=SN-3"}});
}
