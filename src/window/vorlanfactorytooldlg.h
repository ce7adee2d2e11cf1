// The main window: menu bar, the three pages in their tabs, and the footer. Loads what earlier runs
// have stored, opens the run log, and asks before it closes upon a running burn.
#pragma once

#include <QMainWindow>
#include <QSocketNotifier>
#include <memory>

#include "pages/serial/serialburnpage.h"
#include "pages/usb/burnpage.h"
#include "platform/portevents.h"
#include "ui/pagesheet.h"
#include "window/mainpage.h"

class CVorlanFactoryToolDlg final : public QMainWindow {
  public:
    CVorlanFactoryToolDlg();
    ~CVorlanFactoryToolDlg() override;

    // Shows the window, with all it is made of, then loads settings and serial numbers and opens
    // the log. To be called once.
    void OnInitDialog();

  private:
    class RunLog;

    void closeEvent(QCloseEvent* event) override;

    void makeMenus();
    void buildClientArea();
    double fittingFontPoints() const;
    void loadSettings();
    void watchPorts();
    void takePortEvents();
    void showAbout();
    void importSn();

    std::unique_ptr<RunLog> log_;  // outlives the pages, whose workers log
    PageSheet pageSheet_;
    CMainPage mainPage_;
    CBurnPage burnPage_;
    CSerialBurnPage serialPage_;
    std::unique_ptr<platform::PortEvents> portEvents_;
    std::unique_ptr<QSocketNotifier> portNotifier_;
};
