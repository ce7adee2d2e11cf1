#include "ui/applicationlook.h"

#include <QGuiApplication>
#include <QIcon>
#include <QLibraryInfo>
#include <QPalette>
#include <QStyle>
#include <QThreadPool>
#include <QTranslator>

#include "ui/taskbar.h"
#include "utils/logutil.h"

#define LOG_TAG "ApplicationLook"

namespace {

QIcon programIcon() {
    QIcon icon;
    for (const int size : {16, 32, 48, 128, 256})
        icon.addFile(QStringLiteral(":/icons/vorlanfactorytool-%1.png").arg(size), {size, size});
    return icon;
}

// The toolkit paints on threads of its pool, which come and go, and ends the program if one comes
// at a time without descriptors. So there is one, from the beginning to the end.
void keepOnePainter() {
    QThreadPool* const painters = QThreadPool::globalInstance();
    painters->setMaxThreadCount(1);
    painters->setExpiryTimeout(-1);
    painters->start([] {});
}

}  // namespace

QPalette legible(QPalette palette) {
    constexpr double kStrength = 0.65;  // of the plain text
    const QColor window = palette.color(QPalette::Active, QPalette::Window);
    for (const QPalette::ColorRole role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
        const QColor text = palette.color(QPalette::Active, role);
        const auto between = [&](float plain, float ground) {
            return static_cast<float>(kStrength) * plain +
                   static_cast<float>(1 - kStrength) * ground;
        };
        palette.setColor(QPalette::Disabled, role,
                         QColor::fromRgbF(between(text.redF(), window.redF()),
                                          between(text.greenF(), window.greenF()),
                                          between(text.blueF(), window.blueF())));
    }
    return palette;
}

void setUpApplication(QApplication& application) {
    // Not the display name, which would follow the caption of every box.
    QApplication::setApplicationName(QStringLiteral("VorlanFactoryTool"));
    QApplication::setApplicationVersion(QStringLiteral(VORLAN_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("vorlanfactorytool"));
    QApplication::setWindowIcon(programIcon());
    QApplication::setStyle(QStringLiteral("Fusion"));
    QApplication::setPalette(legible(QApplication::style()->standardPalette()));
    keepOnePainter();
    connectTaskBar();

    auto* const translator = new QTranslator(&application);
    if (translator->load(QStringLiteral("qtbase_zh_CN"),
                         QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QApplication::installTranslator(translator);
    else
        LOG_W("the toolkit's Chinese texts are missing");
}
