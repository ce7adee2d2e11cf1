// A white field with plain text in it: the tile area of a burn page and the status line of a tile.
#pragma once

#include <QLabel>

class CCustomStatic final : public QLabel {
  public:
    explicit CCustomStatic(QWidget* parent);
};
