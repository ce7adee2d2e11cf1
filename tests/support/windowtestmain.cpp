// Runs the tests of windows: without a screen, and with the program's own look.
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
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    setUpApplication(application);
    return RUN_ALL_TESTS();
}
