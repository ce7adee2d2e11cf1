// The page for burning over serial ports. It cannot burn yet and says so.
#pragma once

#include "ui/page.h"

class CSerialBurnPage final : public Page {
  public:
    CSerialBurnPage();

    void OnInitDialog() override;
};
