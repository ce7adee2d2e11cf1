// The dialog behind the menu's "导入SN号": imports a file of serial numbers and sets the flash
// address at which a device gets its number. What it stores takes effect at once; a burn page shows
// it when it comes to the front the next time.
#pragma once

#include <QDialog>

// Not while a page is burning.
class LoadSnDialog final : public QDialog {
  public:
    explicit LoadSnDialog(QWidget* parent);
};
