#include "window/vorlanfactorytooldlg.h"

#include <QAction>
#include <QCloseEvent>
#include <QLabel>
#include <QLayout>
#include <QMenuBar>
#include <QScreen>

#include "pages/snsettings.h"
#include "platform/serialports.h"
#include "storage/globalstorage.h"
#include "ui/dialogtemplate.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "utils/filelogprinter.h"
#include "utils/fileutil.h"
#include "utils/logutil.h"
#include "utils/trace.h"
#include "window/aboutdlg.h"
#include "window/loadsndialog.h"

namespace {

// In pixels.
constexpr int kBesidePage = 20;    // client area to the right of the page
constexpr int kAroundFooter = 20;  // above and below
constexpr int kBelowFooter = 6;
constexpr int kFrame = 10;  // of window managers, the title apart

constexpr QRect kFooter{227, 323, 137, 8};  // in dialog units

const QString kCloseQuestion =
    QStringLiteral("关闭软件将会造成正在烧录的固件烧录\n失败，确认关闭吗？");

// Shows a dialog that nothing waits for and that goes away with its closing.
void openModal(QDialog* dialog) {
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

}  // namespace

class CVorlanFactoryToolDlg::RunLog {
  public:
    RunLog() : printer_("log\\run.log") { hj::setLogPrinter(&printer_); }
    ~RunLog() { hj::clearLogPrinter(); }
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

  private:
    FileLogPrinter printer_;
};

CVorlanFactoryToolDlg::CVorlanFactoryToolDlg() : mainPage_(pageSheet_) {}

CVorlanFactoryToolDlg::~CVorlanFactoryToolDlg() = default;

void CVorlanFactoryToolDlg::OnInitDialog() {
    setWindowTitle(QStringLiteral("VorlanFactoryTool"));
    setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                   Qt::WindowCloseButtonHint);
    makeMenus();
    buildClientArea();
    show();
    loadSettings();
    if (!fileutil::fileExists(L"log\\"))
        fileutil::createDirectories(L"log\\");
    log_ = std::make_unique<RunLog>();
    watchPorts();
}

void CVorlanFactoryToolDlg::makeMenus() {
    // In the window, as its size counts on, whatever the desktop does with menus.
    menuBar()->setNativeMenuBar(false);
    connect(menuBar()->addAction(QStringLiteral("导入SN号")), &QAction::triggered, this,
            [this] { importSn(); });
    connect(menuBar()->addAction(QStringLiteral("关于")), &QAction::triggered, this,
            [this] { showAbout(); });
    auto* const about = new QAction(strings::kSystemMenuAbout.toString(), this);
    connect(about, &QAction::triggered, this, [this] { showAbout(); });
    addAction(about);
    setContextMenuPolicy(Qt::ActionsContextMenu);
}

void CVorlanFactoryToolDlg::buildClientArea() {
    auto* const client = new QWidget;
    pageSheet_.setParent(client);
    const auto pages = {static_cast<Page*>(&mainPage_), static_cast<Page*>(&burnPage_),
                        static_cast<Page*>(&serialPage_)};
    for (Page* const page : pages)
        pageSheet_.addPage(page);
    const double points = fittingFontPoints();
    for (Page* const page : pages)
        page->setFontPoints(points);
    const DialogTemplate controls(client, points, {590, 340});
    QLabel* const footer = controls.label(kFooter, QStringLiteral("本工具由墨川电子有限公司提供"));
    footer->setAlignment(Qt::AlignCenter);
    const int tabsHeight = pageSheet_.sizeHint().height();
    pageSheet_.setActivePage(0);

    const int sheetHeight = tabsHeight + mainPage_.height();
    client->setFixedSize(mainPage_.width() + kBesidePage,
                         sheetHeight + footer->height() + kAroundFooter);
    // As wide as the window, for the sake of the line under the tabs.
    pageSheet_.setGeometry(0, 0, client->width(), sheetHeight);
    footer->move((client->width() - footer->width()) / 2,
                 client->height() - footer->height() - kBelowFooter);
    setCentralWidget(client);
    layout()->setSizeConstraint(QLayout::SetFixedSize);
}

// The window cannot be made smaller by hand, so it has to fit the screen from the start.
double CVorlanFactoryToolDlg::fittingFontPoints() const {
    // As long as the pages are empty, the sheet is no higher than its tabs.
    const int tabsHeight = pageSheet_.sizeHint().height();
    const int titleBar = 2 * fontMetrics().height();
    const QSize around(kBesidePage,
                       titleBar + menuBar()->sizeHint().height() + tabsHeight + kAroundFooter);
    const QSize frame(kFrame, kFrame);
    return DialogUnits::fittingPoints(font(), Page::kFontPoints,
                                      {Page::kWidth, Page::kHeight + kFooter.height()},
                                      screen()->availableGeometry().size() - around - frame);
}

void CVorlanFactoryToolDlg::loadSettings() {
    GlobalStorage& storage = GlobalStorage::getInstance();
    storage.load();
    const std::wstring path = storage.getSnFilePath();
    if (!path.empty() && fileutil::fileExists(path))
        loadSnFile(*this, path);
    tellSnFindings(this);
}

void CVorlanFactoryToolDlg::watchPorts() {
    portEvents_ = platform::serialPorts().watch();
    if (portEvents_ == nullptr) {
        TRACE("RegisterDeviceNotification failed\n");
        return;
    }
    portNotifier_ =
        std::make_unique<QSocketNotifier>(portEvents_->descriptor(), QSocketNotifier::Read);
    connect(portNotifier_.get(), &QSocketNotifier::activated, this, [this] { takePortEvents(); });
}

void CVorlanFactoryToolDlg::takePortEvents() {
    while (const std::optional<platform::PortEvent> event = portEvents_->next()) {
        if (serialPage_.isActivated())
            serialPage_.onDeviceChange(*event);
    }
}

void CVorlanFactoryToolDlg::showAbout() {
    openModal(new CAboutDlg(this));
}

void CVorlanFactoryToolDlg::importSn() {
    if (burnPage_.isBurning() || serialPage_.isBurning()) {
        prompts().showBox(this, strings::kNoImportWhileBurning.toString(),
                          strings::kNotice.toString(), BoxType::kWarning);
        return;
    }
    auto* const dialog = new LoadSnDialog(this);
    // What it has stored shows at once on the page behind it.
    connect(dialog, &QDialog::finished, this, [this] {
        for (BurnPageBase* const page :
             {static_cast<BurnPageBase*>(&burnPage_), static_cast<BurnPageBase*>(&serialPage_)}) {
            if (page->isVisible())
                page->showStoredSettings();
        }
    });
    openModal(dialog);
}

void CVorlanFactoryToolDlg::closeEvent(QCloseEvent* event) {
    if (burnPage_.isBurning() || serialPage_.isBurning()) {
        if (!prompts().showBox(this, kCloseQuestion, strings::kBurning.toString(),
                               BoxType::kWarningOkCancel)) {
            event->ignore();
            return;
        }
        if (burnPage_.isBurning()) {
            burnPage_.saveTags();
            burnPage_.toggleBurn();
        } else {
            serialPage_.toggleBurn();
        }
    }
    QMainWindow::closeEvent(event);
}
