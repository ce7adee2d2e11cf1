// A field, white in a light desktop, with plain text in it: the tile area of a burn page and the
// status line of a tile.
#pragma once

#include <QLabel>
#include <optional>

class CCustomStatic final : public QLabel {
  public:
    explicit CCustomStatic(QWidget* parent);

    // Puts the text, as one line, on that height below the upper edge: where the field is lower
    // than a line, a label would cut off what hangs below the letters.
    void setBaseLine(int pixels) { baseLine_ = pixels; }

  private:
    void paintEvent(QPaintEvent* event) override;

    std::optional<int> baseLine_;
};
