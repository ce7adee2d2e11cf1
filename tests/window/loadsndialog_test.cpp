#include "window/loadsndialog.h"

#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QTest>

#include "demo/operator/windowoperator.h"
#include "support/firststartfixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kGoodRows = "A1,0\r\nA2,1\r\n";

const QString kImport = QStringLiteral("导入SN号");
const QString kSet = QStringLiteral("设置");
const QString kPath = QStringLiteral("文件路径");
const QString kAddress = QStringLiteral("SN烧录地址");

class LoadSnDialogTest : public FirstStartFixture {
  protected:
    void open() {
        dialog_ = std::make_unique<LoadSnDialog>(nullptr);
        dialog_->open();
        hands_ = std::make_unique<simulator::WindowOperator>(*dialog_);
    }
    void import(const std::optional<QString>& path) {
        prompts_.choose(path);
        EXPECT_TRUE(hands_->press(kImport));
        EXPECT_THAT(prompts_.takeFilters(), ElementsAre(QStringLiteral("SN文件(*.csv)")));
    }
    QString shown(const QString& box) { return hands_->edit(box)->text(); }

    std::unique_ptr<LoadSnDialog> dialog_;
    std::unique_ptr<simulator::WindowOperator> hands_;
};

}  // namespace

TEST_F(LoadSnDialogTest, ShowsWhatIsStored) {
    open();
    EXPECT_EQ(dialog_->windowTitle(), kImport);
    EXPECT_EQ(shown(kPath), "");
    EXPECT_TRUE(hands_->edit(kPath)->isReadOnly());
    EXPECT_EQ(shown(kAddress), "0x7ff004");

    const std::wstring path = text::widen(directory_.write("列表.csv", kGoodRows));
    storage_.setSnFilePath(path);
    storage_.setSnBurnAddr(0xFFFFFFFF);
    open();
    EXPECT_EQ(shown(kPath), "") << "no list is in force";
    ASSERT_TRUE(storage_.getSnFile().load(path));
    open();
    EXPECT_EQ(shown(kPath), QString::fromStdWString(path));
    EXPECT_EQ(shown(kAddress), "") << "no address is stored";
}

TEST_F(LoadSnDialogTest, RemembersAGoodFileAndShowsTheListInForce) {
    const QString good = QString::fromStdString(directory_.write("good.csv", kGoodRows));
    const QString wrong = QString::fromStdString(directory_.write("wrong.csv", "A1\r\n"));
    const QString gone = QString::fromStdString((directory_.path() / "gone.csv").string());
    const Box badFormat = notice(
        "文件解析失败，请检查文件格式：必须是以半角','分隔，\n每行两列且以CRLF结尾的csv文件！");
    open();
    import(good);
    EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(notice("导入成功")));
    EXPECT_EQ(shown(kPath), good);
    EXPECT_TRUE(storage_.getSnFile().isLoaded());
    GlobalStorage restarted;
    EXPECT_TRUE(restarted.load());
    EXPECT_EQ(restarted.getSnFilePath(), good.toStdWString());
    import(gone);
    EXPECT_EQ(shown(kPath), good);
    import(std::nullopt);
    EXPECT_EQ(shown(kPath), good);
    EXPECT_THAT(prompts_.takeBoxes(), IsEmpty());
    import(wrong);
    EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(badFormat));
    EXPECT_EQ(shown(kPath), "") << "the old list is gone";
    EXPECT_EQ(storage_.getSnFilePath(), good.toStdWString());
}

TEST_F(LoadSnDialogTest, TellsOfRepeatedNumbersAndOfLostMarks) {
    const auto importRows = [&](const char* rows) {
        import(QString::fromStdString(directory_.write("list.csv", rows)));
        QCoreApplication::processEvents();
        return prompts_.takeBoxes();
    };
    open();
    EXPECT_THAT(importRows("A,0\r\nB,1\r\nA,0\r\nB,0\r\n"),
                ElementsAre(notice("导入成功"),
                            notice("SN文件中有 2 行的SN号与前面的行重复，第一处在第 3 行：SN=A。\n"
                                   "每个SN号最多分配一次，已烧录的不再分配。")));
    EXPECT_THAT(importRows("A,0\r\nB,0\r\n"),
                ElementsAre(notice("导入成功"),
                            notice("SN文件中有 1 个已烧录的SN号被改回未烧录，第一个：SN=B。\n"
                                   "这些SN号不再分配，请检查是否有其他程序覆盖了该文件。")));
    EXPECT_THAT(importRows("A,0\r\nB,1\r\n"), ElementsAre(notice("导入成功")));
}

TEST_F(LoadSnDialogTest, StoresHexadecimalAddressesOnly) {
    open();
    for (const char* const text : {"0", "zz", "", "0x"}) {
        EXPECT_TRUE(hands_->type(hands_->edit(kAddress), text));
        EXPECT_TRUE(hands_->press(kSet));
        EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(notice("地址格式错误，请输入16进制地址！")))
            << text;
    }
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x7FF004U);
    EXPECT_FALSE(std::filesystem::exists("global_storage"));

    const std::pair<const char*, std::uint32_t> addresses[] = {
        {"0x7ff000", 0x7FF000}, {"FFFFFFFF", 0x7FFFFFFF}, {"10 000", 0x10}, {"7FF004", 0x7FF004}};
    for (const auto& [text, address] : addresses) {
        EXPECT_TRUE(hands_->type(hands_->edit(kAddress), text));
        EXPECT_TRUE(hands_->press(kSet));
        EXPECT_EQ(storage_.getSnBurnAddr(), address) << text;
        GlobalStorage restarted;
        EXPECT_TRUE(restarted.load());
        EXPECT_EQ(restarted.getSnBurnAddr(), address) << text;
    }
    // A scanner's Enter is no press of a button.
    QTest::keyClick(hands_->edit(kAddress), Qt::Key_Return);
    EXPECT_THAT(prompts_.takeBoxes(), IsEmpty());
    EXPECT_TRUE(dialog_->isVisible());
}
