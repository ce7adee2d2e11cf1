#include "ui/taskbar.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QTest>

namespace {

// What goes over a bus of the test's own, as dbus-monitor prints it.
class TaskBar {
  public:
    TaskBar() {
        bus_.start("dbus-daemon", {"--session", "--nofork", "--print-address"});
        QString address;
        EXPECT_TRUE(QTest::qWaitFor([&] {
            address += bus_.readAllStandardOutput();
            return address.endsWith('\n');
        }));
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.trimmed().toUtf8());
        monitor_.start("dbus-monitor",
                       {"--session", "interface=com.canonical.Unity.LauncherEntry"});
        // The monitor's own messages are the first that it prints.
        EXPECT_TRUE(QTest::qWaitFor([&] { return heard().contains("NameLost"); }));
    }
    ~TaskBar() {
        for (QProcess* const process : {&monitor_, &bus_}) {
            process->kill();
            process->waitForFinished();
        }
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

    const QString& heard() { return heard_ += monitor_.readAllStandardOutput(); }

    // Whether the icon reads that number, in a message that has not been looked at yet.
    bool reads(int count, bool visible) {
        const QRegularExpression update(
            QStringLiteral("application://vorlanfactorytool\\.desktop.*\"count\"\\s+variant\\s+"
                           "int64 %1\\s.*\"count-visible\"\\s+variant\\s+boolean %2\\s")
                .arg(count)
                .arg(visible ? "true" : "false"),
            QRegularExpression::DotMatchesEverythingOption);
        const bool found = QTest::qWaitFor([&] { return update.match(heard()).hasMatch(); });
        heard_.clear();
        return found;
    }

  private:
    QProcess bus_;
    QProcess monitor_;
    QString heard_;
};

}  // namespace

TEST(TaskBarTest, ShowsHowManyBurnsRun) {
    TaskBar taskBar;
    connectTaskBar();
    for (const int burns : {1, 16, 0}) {
        showInTaskBar(burns);
        EXPECT_TRUE(taskBar.reads(burns, burns > 0)) << burns;
    }
}
