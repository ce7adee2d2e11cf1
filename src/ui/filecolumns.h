// What the file dialog tells about each file, in Chinese: the toolkit takes sizes, kinds and times
// from the desktop's language.
#pragma once

#include <QIdentityProxyModel>

class FileColumns final : public QIdentityProxyModel {
  public:
    using QIdentityProxyModel::QIdentityProxyModel;

    QVariant data(const QModelIndex& index, int role) const override;
};
