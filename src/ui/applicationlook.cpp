#include "ui/applicationlook.h"

#include <QLibraryInfo>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>
#include <QTranslator>

#include "utils/logutil.h"

#define LOG_TAG "ApplicationLook"

void setUpApplication(QApplication& application) {
    // Not the display name, which would follow the caption of every box.
    QApplication::setApplicationName(QStringLiteral("VorlanFactoryTool"));
    QApplication::setStyle(QStringLiteral("Fusion"));
    QApplication::setPalette(QApplication::style()->standardPalette());

    auto* const translator = new QTranslator(&application);
    if (translator->load(QStringLiteral("qtbase_zh_CN"),
                         QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QApplication::installTranslator(translator);
    else
        LOG_W("the toolkit's Chinese texts are missing");
}
