#include "ui/applicationlook.h"

#include <QGuiApplication>
#include <QIcon>
#include <QLibraryInfo>
#include <QPalette>
#include <QStyle>
#include <QThreadPool>
#include <QTranslator>

#include "ui/runningburn.h"
#include "utils/logutil.h"

#define LOG_TAG "ApplicationLook"

namespace {

QIcon programIcon() {
    QIcon icon;
    for (const int size : {16, 32, 48, 128, 256})
        icon.addFile(QStringLiteral(":/icons/vorlanfactorytool-%1.png").arg(size), {size, size});
    return icon;
}

// The style's light colours, but with greyed texts that can be read: a tile that is greyed out
// still tells why its burn failed.
QPalette lightColours() {
    QPalette palette = QApplication::style()->standardPalette();
    for (const QPalette::ColorRole text :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, text, QColor(0x6e, 0x6e, 0x6e));
    return palette;
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

void setUpApplication(QApplication& application) {
    // Not the display name, which would follow the caption of every box.
    QApplication::setApplicationName(QStringLiteral("VorlanFactoryTool"));
    QApplication::setApplicationVersion(QStringLiteral(VORLAN_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("vorlanfactorytool"));
    QApplication::setWindowIcon(programIcon());
    QApplication::setStyle(QStringLiteral("Fusion"));
    QApplication::setPalette(lightColours());
    keepOnePainter();
    connectTaskBar();

    auto* const translator = new QTranslator(&application);
    if (translator->load(QStringLiteral("qtbase_zh_CN"),
                         QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QApplication::installTranslator(translator);
    else
        LOG_W("the toolkit's Chinese texts are missing");
}
