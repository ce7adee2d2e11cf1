#include "ui/runningburn.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QTest>
#include <atomic>
#include <thread>
#include <vector>

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

TEST(RunningBurnTest, TheTaskBarShowsHowManyBurnsRun) {
    TaskBar taskBar;
    connectTaskBar();
    {
        const RunningBurn first;
        EXPECT_TRUE(taskBar.reads(1, true));
        std::vector<std::jthread> workers;
        std::atomic<bool> over = false;
        workers.reserve(15);
        for (int i = 0; i < 15; ++i) {
            workers.emplace_back([&] {
                const RunningBurn burn;
                over.wait(false);
            });
        }
        EXPECT_TRUE(taskBar.reads(16, true));
        over = true;
        over.notify_all();
        workers.clear();
        EXPECT_TRUE(taskBar.reads(1, true));
    }
    EXPECT_TRUE(taskBar.reads(0, false));
}
