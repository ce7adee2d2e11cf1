#include "pages/burnpagebase.h"

#include <QFont>
#include <QGuiApplication>
#include <algorithm>
#include <utility>

#include "pages/burnend.h"
#include "pages/snsettings.h"
#include "storage/globalstorage.h"
#include "ui/longwork.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "ui/taskbar.h"
#include "ui/tooltip.h"
#include "utils/logutil.h"
#include "utils/text.h"

#define LOG_TAG "BurnPageBase"

namespace {

constexpr int kFreeBelowGrid = 24;  // pixels
constexpr QRect kHint{202, 159, 145, 11};

const QString kFirmwareInUnpackDirectory = QStringLiteral(
    "固件包位于程序的解压目录中，解压时会被删除！\n请把固件包移到其他目录后重新选择。");

// The wait cursor, for as long as it lives.
class WaitCursor {
  public:
    WaitCursor() { QGuiApplication::setOverrideCursor(Qt::WaitCursor); }
    ~WaitCursor() { QGuiApplication::restoreOverrideCursor(); }
    WaitCursor(const WaitCursor&) = delete;
    WaitCursor& operator=(const WaitCursor&) = delete;
};

}  // namespace

BurnPageBase::RunningBurn::RunningBurn(BurnPageBase& page) : page_(page) {
    ++runningBurns_;
    page_.refresher_.request();
}

BurnPageBase::RunningBurn::~RunningBurn() {
    --runningBurns_;
    page_.refresher_.request();
}

BurnPageBase::BurnPageBase(Layout layout)
    : Page(layout.caption), layout_(std::move(layout)), refresher_([this] { refresh(); }) {}

void BurnPageBase::OnInitDialog() {
    makeControls();
    if (firmware_.getFirmwarePath().empty())
        showNoFirmware();
    layoutTiles();
    refresh();
}

void BurnPageBase::makeControls() {
    const DialogTemplate controls(this, fontPoints(), {kWidth, kHeight});
    chooseButton_ = controls.button({222, 14, 50, 14}, QStringLiteral("选择固件"));
    QPushButton* const importButton =
        controls.button(layout_.importButton, QStringLiteral("导入SN"));
    snAddressBox_ = controls.edit({59, 36, 151, 14}, QStringLiteral("SN烧录地址"));
    startButton_ = controls.button({222, 36, 50, 14}, strings::kStartBurn.toString());
    addControls(controls);
    burnCountBox_ = controls.readOnlyEdit(layout_.burnCountBox, QStringLiteral("刷机计数"));
    firmwareBox_ = controls.readOnlyEdit({59, 14, 151, 14}, QStringLiteral("固件路径"));
    snPathBox_ = controls.readOnlyEdit(layout_.snPathBox, QStringLiteral("SN路径"));
    controls.label({9, 17, 44, 8}, QStringLiteral("固件路径："), firmwareBox_);
    controls.label(layout_.snPathLabel, QStringLiteral("SN路径："), snPathBox_);
    controls.label(layout_.snAddressLabel, QStringLiteral("SN烧录地址："), snAddressBox_);
    controls.label({444, 39, 44, 8}, QStringLiteral("刷机计数："), burnCountBox_);

    for (QWidget* const disabled :
         {static_cast<QWidget*>(firmwareBox_), static_cast<QWidget*>(snPathBox_),
          static_cast<QWidget*>(snAddressBox_), static_cast<QWidget*>(startButton_)})
        disabled->setEnabled(false);

    tileArea_ = new CCustomStatic(this);
    tileArea_->setGeometry(controls.toPixels(layout_.tileArea));
    hint_ = controls.label(kHint, layout_.hint);
    hint_->setAlignment(Qt::AlignCenter);
    hint_->setFont(QFont(QStringLiteral("宋体"), 10));

    connect(chooseButton_, &QPushButton::clicked, this, [this] { chooseFirmware(); });
    connect(startButton_, &QPushButton::clicked, this, [this] { onStartButton(); });
    connect(importButton, &QPushButton::clicked, this, [this] { importSn(); });
}

void BurnPageBase::layoutTiles() {
    const int columnWidth = tileArea_->width() / 2;
    const int rowHeight = (tileArea_->height() - kFreeBelowGrid) / 8;
    int nextControlId = layout_.firstTileId;
    for (std::size_t i = 0; i < kSlots; ++i) {
        const int column = static_cast<int>(i % 2);
        const int row = static_cast<int>(i / 2);
        tiles_[i] = std::make_unique<DeviceDisplay>(tileArea_, refresher_);
        nextControlId = tiles_[i]->create(
            {column * columnWidth, row * rowHeight, columnWidth, rowHeight}, nextControlId);
        tiles_[i]->setName(layout_.tileName + std::to_wstring(i + 1));
        tiles_[i]->setProgress(0);
        tiles_[i]->setActive(false);
        addSlot(*tiles_[i]);
    }
}

void BurnPageBase::showStoredSettings() {
    refreshBurnCount();
    showSnList();
    showSnAddress(*snAddressBox_);
}

// The address can be changed as long as there are numbers to be written.
void BurnPageBase::showSnList() {
    showSnPath(*snPathBox_);
    snAddressBox_->setEnabled(GlobalStorage::getInstance().getSnFile().isLoaded() != 0);
}

bool BurnPageBase::OnKillActive() {
    if (!burning_)
        return Page::OnKillActive();
    return prompts().showBox(this, QStringLiteral("进入其他页将会停止烧录，确认吗？"),
                             strings::kBurning.toString(), BoxType::kWarningOkCancel) &&
           Page::OnKillActive();
}

void BurnPageBase::OnLeft() {
    if (burning_)
        toggleBurn();
}

void BurnPageBase::chooseFirmware() {
    const std::optional<QString> path =
        prompts().chooseFile(this, QStringLiteral("刷机固件(*.vrk *.zip)"));
    if (!path)
        return;
    firmwareBox_->setText(*path);
    setPlainToolTip(*firmwareBox_, *path);
    firmwareBox_->setEnabled(true);
    firmware_.setFirmwarePath(path->toStdWString());
    bool valid = false;
    bool finished = false;
    {
        const WaitCursor cursor;
        finished =
            runLongWork(*this, QStringLiteral("正在解压固件……"), [&](const PercentReport& report) {
                valid = firmware_.unpack(layout_.unpackDirectory, report);
            });
    }
    startButton_->setEnabled(valid);
    if (valid)
        return;
    if (!finished) {
        showNoFirmware();
        return;
    }
    const QString reason = firmware_.liesInUnpackDirectory(layout_.unpackDirectory)
                               ? kFirmwareInUnpackDirectory
                               : strings::kInvalidFirmware.toString();
    prompts().showBox(this, reason, strings::kNotice.toString(), BoxType::kPlain);
}

void BurnPageBase::showNoFirmware() {
    firmwareBox_->setText(QStringLiteral("请选择固件"));
    setPlainToolTip(*firmwareBox_, {});
}

void BurnPageBase::importSn() {
    if (burning_) {
        prompts().showBox(this, strings::kNoImportWhileBurning.toString(),
                          strings::kNotice.toString(), BoxType::kWarning);
        return;
    }
    importSnFile(this);
    showSnList();
}

void BurnPageBase::toggleBurn() {
    if (burning_)
        stopBurn();
    else
        startBurn();
}

bool BurnPageBase::storeAddress() {
    return storeSnAddress(this, *snAddressBox_);
}

void BurnPageBase::lockChoices(bool locked) {
    chooseButton_->setEnabled(!locked);
    if (locked)
        snAddressBox_->setEnabled(false);
    else if (GlobalStorage::getInstance().getSnFile().isLoaded() != 0)
        snAddressBox_->setEnabled(true);
}

void BurnPageBase::setBurning(bool burning) {
    burning_ = burning;
    hint_->setText((burning ? strings::kConnectDevice : strings::kBurnStopped).toString());
    startButton_->setText((burning ? strings::kStopBurn : strings::kStartBurn).toString());
}

void BurnPageBase::showTiles() {
    centre_ = Centre::kTiles;
    refresher_.request();
}

void BurnPageBase::showHintInsteadOfTiles() {
    Centre tiles = Centre::kTiles;
    centre_.compare_exchange_strong(tiles, Centre::kHint);
    refresher_.request();
}

void BurnPageBase::showHintUnlessTiles() {
    Centre nothing = Centre::kNothing;
    centre_.compare_exchange_strong(nothing, Centre::kHint);
    refresher_.request();
}

void BurnPageBase::refreshBurnCount() {
    refresher_.request();
}

void BurnPageBase::refresh() {
    const Centre centre = centre_;
    burnCountBox_->setText(QString::number(GlobalStorage::getInstance().getFlashCount()));
    showInTaskBar(runningBurns_);
    for (const auto& tile : tiles_)
        tile->refresh();
    // After the tiles, which let go of the focus: else it would go to the tabs.
    hint_->setVisible(centre == Centre::kHint);
    tileArea_->setVisible(centre == Centre::kTiles);
    showNotices();
}

// The refreshes go on while the operator reads; what comes up meanwhile is shown afterwards.
void BurnPageBase::showNotices() {
    if (noticeOpen_)
        return;
    noticeOpen_ = true;
    while (const std::optional<Notice> notice = takeNotice())
        prompts().showBox(this, notice->text, notice->caption, BoxType::kPlain);
    noticeOpen_ = false;
}

std::optional<BurnPageBase::Notice> BurnPageBase::takeNotice() {
    const std::lock_guard guard(noticeLock_);
    if (notices_.empty())
        return std::nullopt;
    Notice notice = std::move(notices_.front());
    notices_.pop_front();
    return notice;
}

void BurnPageBase::showLater(const QString& text, const QString& caption) {
    {
        const std::lock_guard guard(noticeLock_);
        const bool waits = std::any_of(notices_.begin(), notices_.end(),
                                       [&](const Notice& notice) { return notice.text == text; });
        if (!waits)
            notices_.push_back({text, caption});
    }
    refresher_.request();
}

void BurnPageBase::tellOnce(const QString& cause, const QString& text) {
    {
        const std::lock_guard guard(noticeLock_);
        if (!toldCauses_.insert(cause).second)
            return;
    }
    showLater(text, strings::kNotice.toString());
}

PackageIdentity BurnPageBase::package() const {
    return {firmware_.getFirmwarePath(), firmware_.getSha256()};
}

void BurnPageBase::recordBurn(const BurnEnd& end) {
    const std::string reason = GlobalStorage::getInstance().getRecord().append(end);
    if (!reason.empty()) {
        LOG_E("not in the record: %s, %s", end.place.c_str(), reason.c_str());
        tellOnce(QStringLiteral("record"),
                 QStringLiteral("生产记录 log\\record.csv 无法写入！\n原因：%1\n"
                                "烧录继续进行，未记录的烧录请查看 log\\run.log。")
                     .arg(QString::fromStdString(reason)));
    }
    logBurnEnd(end);
}

void BurnPageBase::tellUnmarked(const std::vector<SerialNumFile::Unmarked>& numbers) {
    for (const SerialNumFile::Unmarked& number : numbers) {
        const QString reason = QString::fromStdString(number.reason);
        tellOnce(reason, QStringLiteral("SN=%1 已写入设备，但在SN文件中没有标记！\n原因：%2\n"
                                        "该SN号本次运行中不再分配，其他SN号请查看 log\\run.log。")
                             .arg(QString::fromStdWString(text::widen(number.sn)), reason));
    }
}
