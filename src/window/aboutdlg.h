// The about box: the program's icon and version.
#pragma once

#include <QDialog>

class CAboutDlg final : public QDialog {
  public:
    explicit CAboutDlg(QWidget* parent);
};
