#include "ui/runningburn.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QMetaObject>
#include <QVariantMap>
#include <atomic>

namespace {

std::atomic<int> running{0};
bool connected = false;  // the user-interface thread's, like the next
int shown = 0;

// Without one the library would start one, or wait.
bool hasSessionBus() {
    return qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS") ||
           QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/bus"));
}

void show() {
    const int count = running;
    if (count == shown || !connected)
        return;
    shown = count;
    QDBusMessage update = QDBusMessage::createSignal(
        QStringLiteral("/cn/mochuan/VorlanFactoryTool"),
        QStringLiteral("com.canonical.Unity.LauncherEntry"), QStringLiteral("Update"));
    update << QStringLiteral("application://vorlanfactorytool.desktop")
           << QVariantMap{{QStringLiteral("count"), qint64{count}},
                          {QStringLiteral("count-visible"), count > 0}};
    QDBusConnection::sessionBus().send(update);
}

void add(int change) {
    running += change;
    QMetaObject::invokeMethod(QCoreApplication::instance(), show, Qt::QueuedConnection);
}

}  // namespace

void connectTaskBar() {
    connected = hasSessionBus() && QDBusConnection::sessionBus().isConnected();
}

RunningBurn::RunningBurn() {
    add(1);
}

RunningBurn::~RunningBurn() {
    add(-1);
}
