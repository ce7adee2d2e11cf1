#include "libusbk/accessrule.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/temporarydirectory.h"

using libusbk::isRuleInstalled;
namespace fs = std::filesystem;

TEST(AccessRule, IsInstalledWhereTheFirstFileOfItsNameIsOne) {
    const TemporaryDirectory directory;
    const fs::path missing = directory.path() / "missing";
    const fs::path first = directory.path() / "first";
    const fs::path second = directory.path() / "second";
    const auto installed = [&] { return isRuleInstalled({missing, first, second}); };
    const char* const rule = "70-vorlanfactorytool-usb.rules";

    fs::create_directory(first);
    EXPECT_FALSE(isRuleInstalled({}));
    EXPECT_FALSE(installed());
    writeContent(second / "70-vorlanfactorytool-uart.rules", "another rule");
    EXPECT_FALSE(installed());
    writeContent(second / rule, "rule");
    EXPECT_TRUE(installed());

    // Hidden, in each way that udev knows; it looks at no other kind of file either.
    writeContent(first / rule, "");
    EXPECT_FALSE(installed());
    for (const fs::path& target : {fs::path("/dev/null"), missing, second / rule}) {
        fs::remove(first / rule);
        fs::create_symlink(target, first / rule);
        EXPECT_EQ(installed(), target == second / rule) << target;
    }
}
