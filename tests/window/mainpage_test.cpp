#include "window/mainpage.h"

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <QTest>
#include <cerrno>
#include <filesystem>

#include "demo/operator/windowoperator.h"
#include "support/firststartfixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

namespace {

class OtherPage final : public Page {
  public:
    using Page::Page;

    void OnInitDialog() override {}
    bool OnSetActive() override { return accepts; }

    bool accepts = true;
};

struct Installer {
    const char* button;
    const char* file;
    const char* missing;
};

constexpr Installer kInstallers[] = {
    {"安装USB驱动", "drivers/InstallDriver", "找不到安装程序InstallDriver.exe！"},
    {"安装串口驱动", "drivers/InstallUartDriver", "找不到安装程序InstallUartDriver.exe！"}};

class MainPageTest : public FirstStartFixture {
  protected:
    MainPageTest() {
        sheet_.addPage(&page_);
        sheet_.addPage(&usb_);
        sheet_.addPage(&serial_);
        EXPECT_TRUE(sheet_.setActivePage(0));
        sheet_.show();
    }

    void press(const char* button) {
        EXPECT_TRUE(hands_.press(QString::fromUtf8(button))) << button;
    }
    static void install(const char* file, const std::string& content, fs::perms permissions) {
        writeContent(file, content);
        fs::permissions(file, permissions);
    }

    PageSheet sheet_;
    CMainPage page_{sheet_};
    OtherPage usb_{QStringLiteral("usb tab")};
    OtherPage serial_{QStringLiteral("serial tab")};
    simulator::WindowOperator hands_{sheet_};
};

}  // namespace

TEST_F(MainPageTest, ButtonsTurnToThePagesThatAccept) {
    EXPECT_EQ(page_.caption(), QStringLiteral("主页"));
    usb_.accepts = false;
    press("USB烧录");
    EXPECT_EQ(sheet_.activePage(), 0);
    EXPECT_TRUE(page_.isVisible());
    usb_.accepts = true;
    press("USB烧录");
    EXPECT_TRUE(usb_.isVisible());
    sheet_.setActivePage(0);
    press("串口烧录");
    EXPECT_TRUE(serial_.isVisible());
    sheet_.setActivePage(0);
    press("串口测试");
    EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(notice("功能开发中！")));
    EXPECT_EQ(sheet_.activePage(), 0);
}

TEST_F(MainPageTest, StartsTheInstallersOnTheirOwn) {
    // An installer must not keep the list of serial numbers locked.
    ASSERT_TRUE(storage_.getSnFile().load(text::widen(directory_.write("sn.csv", "A1,0\r\n"))));
    for (const Installer& installer : kInstallers) {
        // It fails if the page waits for it.
        install(installer.file,
                "#!/bin/sh\n"
                "n=0; until [ -e go ]; do n=$((n+1)); [ $n -lt 200 ] || exit 1; sleep 0.05; done\n"
                "(echo $# $0; ls -l /proc/$$/fd) > part && mv part started\n",
                fs::perms::owner_all);
        press(installer.button);
        writeContent("go", "");
        ASSERT_TRUE(hands_.waitFor([] { return fs::exists("started"); })) << installer.file;
        const std::string told = contentOf("started");
        EXPECT_THAT(told, HasSubstr("0 " + (directory_.path() / installer.file).string()));
        EXPECT_THAT(told, Not(HasSubstr("sn.csv")));
        fs::remove("started");
        fs::remove("go");
    }
    EXPECT_THAT(prompts_.takeBoxes(), IsEmpty());
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left to be waited for";
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(MainPageTest, TellsWhyAnInstallerDoesNotStart) {
    for (const Installer& installer : kInstallers) {
        press(installer.button);
        EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(notice(installer.missing)));

        const auto failure = [&](int reason) {
            return Box{QStringLiteral("ShellExecute, path=%1, ret=%2")
                           .arg(QString::fromStdString(directory_.path() / installer.file))
                           .arg(reason),
                       {},
                       BoxType::kPlain};
        };
        install(installer.file, "#!/bin/sh\n", fs::perms::owner_read);
        press(installer.button);
        EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(failure(5)));

        install(installer.file, "no program", fs::perms::owner_all);
        press(installer.button);
        EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(failure(11)));

        fs::remove(installer.file);
        fs::create_directory(installer.file);
        press(installer.button);
        EXPECT_THAT(prompts_.takeBoxes(), ElementsAre(failure(5)));
    }
}
