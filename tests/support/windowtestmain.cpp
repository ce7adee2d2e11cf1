// Runs the tests of windows: without a display, and with the program's own look. The screen is as
// large as the environment's VORLAN_TEST_SCREEN says, as in 1366x768.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>

#include "support/temporarydirectory.h"
#include "ui/applicationlook.h"

// Qt is not instrumented, so that ThreadSanitizer cannot see how its threads hand data over. Looked
// up by name at start.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() {
    return "ignore_noninstrumented_modules=1";
}

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const TemporaryDirectory runtime;
    std::filesystem::permissions(runtime.path(), std::filesystem::perms::owner_all);
    qputenv("XDG_RUNTIME_DIR", runtime.path().c_str());
    qputenv("XDG_CONFIG_HOME", runtime.path().c_str());
    const QStringList size = qEnvironmentVariable("VORLAN_TEST_SCREEN", "1920x1080").split('x');
    const std::string screen =
        runtime.write("screen.json", R"({"screens":[{"name":"test","x":0,"y":0,"width":)" +
                                         size.value(0).toStdString() + R"(,"height":)" +
                                         size.value(1).toStdString() +
                                         R"(,"logicalDpi":96,"logicalBaseDpi":96,"dpr":1}]})");
    qputenv("QT_QPA_PLATFORM", ("offscreen:configfile=" + screen).c_str());
    QApplication application(argc, argv);
    setUpApplication(application);
    return RUN_ALL_TESTS();
}
