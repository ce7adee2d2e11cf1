// Runs the tests of windows: without a screen, and with the program's own look.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>

#include "support/temporarydirectory.h"
#include "ui/applicationlook.h"

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const TemporaryDirectory runtime;
    std::filesystem::permissions(runtime.path(), std::filesystem::perms::owner_all);
    qputenv("XDG_RUNTIME_DIR", runtime.path().c_str());
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    setUpApplication(application);
    return RUN_ALL_TESTS();
}
