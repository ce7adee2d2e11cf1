#include "ui/filecolumns.h"

#include <QFileSystemModel>
#include <QLocale>

namespace {

// As the toolkit's model has them.
constexpr int kSize = 1;
constexpr int kKind = 2;
constexpr int kTime = 3;

QString kindOf(const QFileInfo& file) {
    if (file.isDir())
        return QStringLiteral("文件夹");
    return QStringLiteral("%1 文件").arg(file.suffix().toUpper()).trimmed();
}

}  // namespace

QVariant FileColumns::data(const QModelIndex& index, int role) const {
    const auto* const files = qobject_cast<const QFileSystemModel*>(sourceModel());
    if (files == nullptr || role != Qt::DisplayRole)
        return QIdentityProxyModel::data(index, role);
    const QModelIndex source = mapToSource(index);
    switch (index.column()) {
        case kSize:
            return files->isDir(source)
                       ? QString()
                       : QLocale(QLocale::Chinese)
                             .formattedDataSize(files->size(source), 2,
                                                QLocale::DataSizeTraditionalFormat);
        case kKind:
            return kindOf(files->fileInfo(source));
        case kTime:
            return files->lastModified(source).toString(QStringLiteral("yyyy-MM-dd HH:mm"));
        default:
            return QIdentityProxyModel::data(index, role);
    }
}
