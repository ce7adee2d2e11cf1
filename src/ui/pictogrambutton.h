// A large button with a pictogram above its text.
#pragma once

#include <QPainterPath>
#include <QPushButton>

// Lines, in a square of 24 units each way. They are drawn in the colour of the button's text, so
// that they are as crisp and as legible as that.
using Pictogram = QPainterPath;

namespace pictograms {

Pictogram installUsb();
Pictogram installSerial();
Pictogram burnUsb();
Pictogram burnSerial();
Pictogram testSerial();

}  // namespace pictograms

class PictogramButton final : public QPushButton {
  public:
    PictogramButton(const Pictogram& pictogram, const QString& text, QWidget* parent);

  private:
    void paintEvent(QPaintEvent* event) override;

    const Pictogram pictogram_;
};
