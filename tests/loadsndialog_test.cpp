#include "loadsndialog.h"

#include <gmock/gmock.h>

#include <QTest>

#include "firststartfixture.h"
#include "simulator/operator/windowoperator.h"

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

    storage_.setSnFilePath(L"/x/列表.csv");
    storage_.setSnBurnAddr(0xFFFFFFFF);
    open();
    EXPECT_EQ(shown(kPath), QStringLiteral("/x/列表.csv"));
    EXPECT_EQ(shown(kAddress), "") << "no address is stored";
}

TEST_F(LoadSnDialogTest, ImportsAndRemembersAGoodFile) {
    const QString path = QString::fromStdString(directory_.write("good.csv", kGoodRows));
    open();
    import(path);
    EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(notice("导入成功")));
    EXPECT_EQ(shown(kPath), path);
    EXPECT_TRUE(dialog_->isVisible());
    EXPECT_EQ(storage_.getSnFile().takeNext()->sn, "A1");

    GlobalStorage restarted;
    EXPECT_TRUE(restarted.load());
    EXPECT_EQ(restarted.getSnFilePath(), path.toStdWString());
}

TEST_F(LoadSnDialogTest, WrongAndVanishedFilesChangeNothingThatIsStored) {
    const QString wrong = QString::fromStdString(directory_.write("wrong.csv", "A1\r\n"));
    storage_.setSnFilePath(L"/before.csv");
    open();
    import(wrong);
    EXPECT_THAT(prompts_.takeBoxes(),
                ElementsAre(notice("文件解析失败，请检查文件格式：必须是以半角','分隔，\n"
                                   "每行两列且以CRLF结尾的csv文件！")));
    EXPECT_EQ(shown(kPath), wrong);

    const QString gone = QString::fromStdString((directory_.path() / "gone.csv").string());
    import(gone);
    EXPECT_EQ(shown(kPath), gone);

    import(std::nullopt);
    EXPECT_EQ(shown(kPath), gone) << "nothing was chosen";

    EXPECT_THAT(prompts_.takeBoxes(), IsEmpty());
    EXPECT_EQ(storage_.getSnFilePath(), L"/before.csv");
    EXPECT_FALSE(std::filesystem::exists("global_storage"));
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
