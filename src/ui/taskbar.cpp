#include "ui/taskbar.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QVariantMap>

namespace {

bool connected = false;
int shown = 0;

// Without one the library would start one, or wait.
bool hasSessionBus() {
    return qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS") ||
           QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/bus"));
}

}  // namespace

void connectTaskBar() {
    connected = hasSessionBus() && QDBusConnection::sessionBus().isConnected();
}

void showInTaskBar(int runningBurns) {
    if (runningBurns == shown || !connected)
        return;
    shown = runningBurns;
    QDBusMessage update = QDBusMessage::createSignal(
        QStringLiteral("/cn/mochuan/VorlanFactoryTool"),
        QStringLiteral("com.canonical.Unity.LauncherEntry"), QStringLiteral("Update"));
    update << QStringLiteral("application://vorlanfactorytool.desktop")
           << QVariantMap{{QStringLiteral("count"), qint64{runningBurns}},
                          {QStringLiteral("count-visible"), runningBurns > 0}};
    QDBusConnection::sessionBus().send(update);
}
