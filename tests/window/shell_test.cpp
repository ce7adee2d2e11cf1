// The window's frame: size, menus, start, closing; and the program with its one copy.
#include <gmock/gmock.h>
#include <unistd.h>

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QMenuBar>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QPushButton>
#include <QScreen>
#include <QTabBar>
#include <QTest>
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "demo/operator/windowoperator.h"
#include "support/firststartfixture.h"
#include "support/systemlimits.h"
#include "ui/dialogunits.h"
#include "window/vorlanfactorytooldlg.h"

using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

class ShellTest : public FirstStartFixture {
  protected:
    void open() {
        window_ = std::make_unique<CVorlanFactoryToolDlg>();
        window_->OnInitDialog();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window_.get()));
        hands_ = std::make_unique<simulator::WindowOperator>(*window_);
    }

    // The dialog that lies on the window.
    static QPointer<QWidget> dialog() { return QApplication::activeModalWidget(); }

    std::unique_ptr<CVorlanFactoryToolDlg> window_;
    std::unique_ptr<simulator::WindowOperator> hands_;
};

// A label or button whose text needs more room than it has.
std::vector<std::string> clippedTexts(const QWidget& window) {
    std::vector<std::string> clipped;
    const auto check = [&](const QWidget& control, const QString& text) {
        const QFontMetrics metrics(control.font());
        if (metrics.horizontalAdvance(text) > control.width() ||
            metrics.tightBoundingRect(text).height() > control.height())
            clipped.push_back(text.toStdString());
    };
    for (const QLabel* const label : window.findChildren<QLabel*>())
        check(*label, label->text());
    for (const QPushButton* const button : window.findChildren<QPushButton*>())
        check(*button, button->text());
    return clipped;
}

}  // namespace

TEST_F(ShellTest, PagesAndFooterFillAWindowOfOneSize) {
    open();
    EXPECT_EQ(window_->windowTitle(), "VorlanFactoryTool");
    EXPECT_EQ(window_->minimumSize(), window_->maximumSize());
    EXPECT_FALSE(window_->windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_TRUE(window_->windowFlags() & Qt::WindowMinimizeButtonHint);

    const QWidget* const client = window_->centralWidget();
    const DialogUnits units(client->font());
    QTabBar* const tabs = window_->findChild<QTabBar*>();
    const QRect sheet = tabs->parentWidget()->geometry();
    const QSize page = units.toPixels(QSize(550, 330));
    EXPECT_EQ(sheet, QRect(0, 0, page.width() + 20, tabs->height() + page.height()));
    EXPECT_EQ(tabs->width(), window_->width()) << "the line under the tabs";
    const auto labels = client->findChildren<QLabel*>();
    const auto footer = std::find_if(labels.begin(), labels.end(), [](const QLabel* label) {
        return label->text() == QStringLiteral("本工具由墨川电子有限公司提供");
    });
    ASSERT_NE(footer, labels.end());
    EXPECT_EQ((*footer)->geometry().bottom(), client->height() - 7);
    EXPECT_FALSE((*footer)->geometry().intersects(sheet));
    EXPECT_NEAR((*footer)->geometry().center().x(), client->rect().center().x(), 1);
    EXPECT_EQ(client->geometry(), window_->rect().adjusted(0, window_->menuBar()->height(), 0, 0));
}

TEST_F(ShellTest, FitsTheScreenWithTheLargestFontThatDoes) {
    open();
    const QSize screen = window_->screen()->availableGeometry().size();
    const QSize frame = window_->frameGeometry().size();
    EXPECT_LE(frame.width(), screen.width());
    EXPECT_LE(frame.height(), screen.height());
    const double points = window_->centralWidget()->font().pointSizeF();
    const QSize larger = window_->size() * (points + 1) / points;
    const bool room = larger.width() <= screen.width() && larger.height() + 50 <= screen.height();
    EXPECT_TRUE(points == 9 || !room) << points;
    EXPECT_TRUE(hands_->press(QStringLiteral("串口烧录")));
    for (const QPushButton* const button : window_->findChildren<QPushButton*>())
        EXPECT_EQ(button->font().pointSizeF(), points) << button->text().toStdString();
}

TEST_F(ShellTest, ThreePagesOfOneSizeWithTextsThatFit) {
    open();
    const QTabBar* const tabs = window_->findChild<QTabBar*>();
    QStringList texts;
    for (int i = 0; i < tabs->count(); ++i)
        texts << tabs->tabText(i);
    EXPECT_EQ(texts.join('|'), QStringLiteral("主页|USB烧录|串口烧录"));
    EXPECT_EQ(tabs->currentIndex(), 0);

    const QSize size = window_->size();
    EXPECT_THAT(clippedTexts(*window_), IsEmpty());
    EXPECT_TRUE(hands_->press(QStringLiteral("串口烧录")));
    EXPECT_TRUE(hands_->isEnabled(QStringLiteral("选择固件")));
    EXPECT_THAT(clippedTexts(*window_), IsEmpty());
    EXPECT_EQ(window_->size(), size);
}

TEST_F(ShellTest, MenusOpenTheDialogs) {
    open();
    const auto closesWith = [&](Qt::Key key, const QString& title) {
        const QPointer<QWidget> opened = dialog();
        ASSERT_NE(opened, nullptr) << title.toStdString();
        EXPECT_EQ(opened->windowTitle(), title);
        EXPECT_THAT(clippedTexts(*opened), IsEmpty());
        QTest::keyClick(opened, key);
        EXPECT_TRUE(hands_->waitFor([&] { return opened.isNull(); })) << title.toStdString();
    };
    const QString about = QStringLiteral("关于 VorlanFactoryTool");
    EXPECT_TRUE(hands_->press(QStringLiteral("关于")));
    EXPECT_FALSE(QApplication::applicationVersion().isEmpty());
    EXPECT_TRUE(
        hands_->canRead("VorlanFactoryTool，" + QApplication::applicationVersion() + " 版"));
    closesWith(Qt::Key_Return, about);
    EXPECT_TRUE(hands_->press(QStringLiteral("导入SN号")));
    closesWith(Qt::Key_Escape, QStringLiteral("导入SN号"));

    ASSERT_EQ(window_->contextMenuPolicy(), Qt::ActionsContextMenu);
    ASSERT_EQ(window_->actions().size(), 1);
    EXPECT_EQ(window_->actions().front()->text(), QStringLiteral("关于 VorlanFactoryTool(&A)..."));
    window_->actions().front()->trigger();
    closesWith(Qt::Key_Escape, about);
    EXPECT_TRUE(window_->isVisible());
}

TEST_F(ShellTest, KeysDoNotCloseTheWindowAndAnIdleCloseSavesNothing) {
    open();
    for (const Qt::Key key : {Qt::Key_Escape, Qt::Key_Return, Qt::Key_Enter})
        QTest::keyClick(window_.get(), key);
    EXPECT_TRUE(window_->isVisible());
    EXPECT_THAT(prompts_.takeBoxes(), IsEmpty());

    EXPECT_TRUE(window_->close());
    window_.reset();
    EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), 1) << "more than the log";
    EXPECT_TRUE(fs::exists("log/run.log"));
}

TEST_F(ShellTest, LoadsTheSettingsAndTheNumbersOfEarlierRuns) {
    GlobalStorage earlier;
    earlier.setSnFilePath(text::widen(directory_.write("sn.csv", "A1,1\r\nA2,0\r\n")));
    earlier.setSnBurnAddr(0x1234);
    ASSERT_TRUE(earlier.save());
    open();
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x1234U);
    ASSERT_TRUE(storage_.getSnFile().isLoaded());
    EXPECT_EQ(storage_.getSnFile().takeNext()->sn, "A2");
}

TEST_F(ShellTest, StartsSilentlyWithADeletedListAndWithDamagedSettings) {
    GlobalStorage earlier;
    earlier.setSnFilePath(L"/gone/sn.csv");
    ASSERT_TRUE(earlier.save());
    open();
    EXPECT_EQ(storage_.getSnFilePath(), L"/gone/sn.csv");
    EXPECT_FALSE(storage_.getSnFile().isLoaded());

    directory_.write("global_storage", "\xFF\xFE\xFF");
    open();
    EXPECT_FALSE(fs::exists("global_storage"));
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x7FF004U);
}

TEST_F(ShellTest, WorksWhereNothingCanBeWritten) {
    directory_.write("sn.csv", "A1,0\r\n");
    fs::permissions(".", fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                             fs::perms::group_exec | fs::perms::others_read |
                             fs::perms::others_exec);
    {
        const OrdinaryUser user;
        open();
        EXPECT_TRUE(hands_->press(QStringLiteral("导入SN号")));
        simulator::WindowOperator dialogHands(*dialog());
        EXPECT_TRUE(dialogHands.press(QStringLiteral("设置")));
        EXPECT_TRUE(dialog()->close());
        EXPECT_TRUE(window_->close());
    }
    fs::permissions(".", fs::perms::owner_all);
    EXPECT_FALSE(fs::exists("log"));
    EXPECT_FALSE(fs::exists("global_storage"));
}

namespace {

// A copy of the program in a directory of its own.
class Copy {
  public:
    // `prepare` runs in the process before the program does.
    explicit Copy(
        const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
        const std::function<void()>& prepare = [] {}) {
        process_.setProcessEnvironment(environment);
        process_.setChildProcessModifier(prepare);
        process_.setWorkingDirectory(QString::fromStdString(directory_.path().string()));
        process_.start(QApplication::applicationDirPath() + "/vorlanfactorytool", {});
    }
    ~Copy() { kill(); }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;

    // The log is opened behind the window.
    bool hasStarted() {
        return QTest::qWaitFor([this] { return fs::exists(directory_.path() / "log/run.log"); },
                               30'000);
    }
    bool isRunning() const { return process_.state() == QProcess::Running; }
    void kill() {
        process_.kill();
        process_.waitForFinished();
    }

    QProcess& process() { return process_; }
    const fs::path& path() const { return directory_.path(); }

  private:
    TemporaryDirectory directory_;
    QProcess process_;
};

}  // namespace

TEST(ProgramTest, SecondCopyEndsSilentlyAndAKilledOneIsNotInTheWay) {
    Copy first;
    ASSERT_TRUE(first.hasStarted());

    Copy second;
    ASSERT_TRUE(second.process().waitForFinished());
    EXPECT_EQ(second.process().exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.process().exitCode(), 0);
    EXPECT_EQ(second.process().readAllStandardError().toStdString(), "");
    EXPECT_EQ(second.process().readAllStandardOutput().toStdString(), "");
    EXPECT_TRUE(fs::is_empty(second.path()));
    EXPECT_TRUE(first.isRunning());

    first.kill();
    Copy third;
    EXPECT_TRUE(third.hasStarted());
    EXPECT_TRUE(third.isRunning());
}

TEST(ProgramTest, GoesOnWhenNobodyReadsItsOutputAnyMore) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    const auto prepare = [&] {
        ::signal(SIGPIPE, SIG_DFL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
    };
    // Without a place for its lock, and none can be made there, the program has something to trace
    // when it starts.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), QStringLiteral("/dev/null/none"));
    environment.insert(QStringLiteral("TMPDIR"), QStringLiteral("/dev/null/none"));
    Copy copy(environment, prepare);
    EXPECT_TRUE(copy.hasStarted());
    EXPECT_TRUE(copy.isRunning());
    ::close(ends[1]);
}
