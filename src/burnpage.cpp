#include "burnpage.h"

#include <QFont>
#include <QGuiApplication>
#include <utility>

#include "snsettings.h"
#include "storage/globalstorage.h"
#include "ui/dialogtemplate.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "utils/fileutil.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "utils/trace.h"
#include "vorlan/burn/burnadmin.h"
#include "vorlan/burn/usbdriver.h"

#define LOG_TAG "BurnPage"

namespace {

constexpr const wchar_t* kUnpackDirectory = L".\\temp_image\\";
constexpr const wchar_t* kOwnBurnerImage = L"\\images\\burner.img";
constexpr std::uint32_t kRomWaitMs = 100;
constexpr int kFreeBelowGrid = 24;  // pixels

// In dialog units.
constexpr QRect kTileArea{7, 58, 536, 265};
constexpr QRect kHint{202, 159, 145, 11};

// The wait cursor, for as long as it lives.
class WaitCursor {
  public:
    WaitCursor() { QGuiApplication::setOverrideCursor(Qt::WaitCursor); }
    ~WaitCursor() { QGuiApplication::restoreOverrideCursor(); }
    WaitCursor(const WaitCursor&) = delete;
    WaitCursor& operator=(const WaitCursor&) = delete;
};

}  // namespace

CBurnPage::CBurnPage() : Page(QStringLiteral("USB烧录")), refresher_([this] { refresh(); }) {
    tagMap_.load();
    for (BurnAvatar& slot : slots_)
        slot.setPage(this);
}

CBurnPage::~CBurnPage() {
    if (burning_)
        BurnAdmin::destroyInstance();
}

void CBurnPage::OnInitDialog() {
    makeControls();
    if (firmware_.getFirmwarePath().empty())
        firmwareBox_->setText(QStringLiteral("请选择固件"));
    layoutTiles();
    refresh();
}

void CBurnPage::makeControls() {
    const DialogTemplate controls(this, kFontPoints, {kWidth, kHeight});
    chooseButton_ = controls.button({222, 14, 50, 14}, QStringLiteral("选择固件"));
    QPushButton* const importButton = controls.button({488, 14, 50, 14}, QStringLiteral("导入SN"));
    snAddressBox_ = controls.edit({59, 36, 151, 14}, QStringLiteral("SN烧录地址"));
    startButton_ = controls.button({222, 36, 50, 14}, strings::kStartBurn.toString());
    QPushButton* const saveTagsButton =
        controls.button({297, 36, 50, 14}, QStringLiteral("保存标签"));
    burnCountBox_ = controls.readOnlyEdit({489, 36, 47, 14}, QStringLiteral("刷机计数"));
    firmwareBox_ = controls.readOnlyEdit({59, 14, 151, 14}, QStringLiteral("固件路径"));
    snPathBox_ = controls.readOnlyEdit({320, 14, 157, 14}, QStringLiteral("SN路径"));
    controls.label({9, 17, 44, 8}, QStringLiteral("固件路径："), firmwareBox_);
    controls.label({284, 17, 35, 8}, QStringLiteral("SN路径："), snPathBox_);
    controls.label({9, 38, 50, 8}, QStringLiteral("SN烧录地址："), snAddressBox_);
    controls.label({444, 39, 44, 8}, QStringLiteral("刷机计数："), burnCountBox_);

    for (QWidget* const disabled :
         {static_cast<QWidget*>(firmwareBox_), static_cast<QWidget*>(snPathBox_),
          static_cast<QWidget*>(snAddressBox_), static_cast<QWidget*>(startButton_)})
        disabled->setEnabled(false);

    tileArea_ = new CCustomStatic(this);
    tileArea_->setGeometry(controls.toPixels(kTileArea));
    hint_ = controls.label(kHint, QStringLiteral("请连接待烧录的USB设备！"));
    hint_->setAlignment(Qt::AlignCenter);
    hint_->setFont(QFont(QStringLiteral("宋体"), 10));

    connect(chooseButton_, &QPushButton::clicked, this, [this] { chooseFirmware(); });
    connect(startButton_, &QPushButton::clicked, this, [this] { toggleBurn(); });
    connect(importButton, &QPushButton::clicked, this, [this] { importSn(); });
    connect(saveTagsButton, &QPushButton::clicked, this, [this] { saveTags(); });
}

void CBurnPage::layoutTiles() {
    const int columnWidth = tileArea_->width() / 2;
    const int rowHeight = (tileArea_->height() - kFreeBelowGrid) / 8;
    for (std::size_t i = 0; i < kSlots; ++i) {
        const int column = static_cast<int>(i % 2);
        const int row = static_cast<int>(i / 2);
        displays_[i] = std::make_unique<DeviceDisplay>(tileArea_, refresher_);
        DeviceDisplay& display = *displays_[i];
        slots_[i].setDisplay(&display);
        nextControlId_ = display.create(
            {column * columnWidth, row * rowHeight, columnWidth, rowHeight}, nextControlId_);
        display.setName(L"DEV " + std::to_wstring(i + 1));
        display.setProgress(0);
        display.setActive(false);
    }
}

bool CBurnPage::OnSetActive() {
    if (!checkUsbDriver())
        return false;
    refreshBurnCount();
    GlobalStorage& storage = GlobalStorage::getInstance();
    const QString snPath = QString::fromStdWString(storage.getSnFilePath());
    if (!snPath.isEmpty()) {
        snPathBox_->setText(snPath);
        snPathBox_->setToolTip(snPath);
        snPathBox_->setEnabled(true);
    }
    showSnAddress(*snAddressBox_);
    if (storage.getSnFile().isLoaded() != 0)
        snAddressBox_->setEnabled(true);
    return Page::OnSetActive();
}

bool CBurnPage::OnKillActive() {
    if (!burning_)
        return Page::OnKillActive();
    if (!prompts().showBox(this, QStringLiteral("进入其他页将会停止烧录，确认吗？"),
                           strings::kBurning.toString(), BoxType::kWarningOkCancel))
        return false;
    toggleBurn();
    return Page::OnKillActive();
}

bool CBurnPage::checkUsbDriver() {
    if (usbDriverWorks())
        return true;
    prompts().showBox(this, QStringLiteral("检测到libusb驱动未安装，请先安装驱动"),
                      strings::kNotice.toString(), BoxType::kWarning);
    return false;
}

void CBurnPage::chooseFirmware() {
    const std::optional<QString> path =
        prompts().chooseFile(this, QStringLiteral("刷机固件(*.vrk *.zip)"));
    if (!path)
        return;
    firmwareBox_->setText(*path);
    firmwareBox_->setToolTip(*path);
    firmwareBox_->setEnabled(true);
    firmware_.setFirmwarePath(path->toStdWString());
    bool valid = false;
    {
        const WaitCursor cursor;
        valid = firmware_.unpack(kUnpackDirectory);
    }
    startButton_->setEnabled(valid);
    if (!valid)
        prompts().showBox(this, strings::kInvalidFirmware.toString(), strings::kNotice.toString(),
                          BoxType::kPlain);
}

void CBurnPage::importSn() {
    if (burning_) {
        prompts().showBox(this, strings::kNoImportWhileBurning.toString(),
                          strings::kNotice.toString(), BoxType::kWarning);
        return;
    }
    if (importSnFile(this, *snPathBox_))
        snAddressBox_->setEnabled(true);
}

void CBurnPage::toggleBurn() {
    if (burning_)
        stopBurn();
    else
        startBurn();
}

void CBurnPage::startBurn() {
    if (!storeSnAddress(this, *snAddressBox_))
        return;
    BurnAdmin* const admin = BurnAdmin::getInstance();
    if (admin == nullptr)
        return;
    chooseButton_->setEnabled(false);
    snAddressBox_->setEnabled(false);
    admin->setRomWait(kRomWaitMs);
    std::wstring burner = firmware_.getBurnerPath();
    if (burner.empty())
        burner = fileutil::inCurrentDirectory(kOwnBurnerImage);
    admin->setBurnerPath(text::narrow(burner));
    admin->startMonitor(this);
    burning_ = true;
    updateHint();
    updateStartButton();
    // A device that was plugged in already may have brought up the tile area by now.
    Centre nothing = Centre::kNothing;
    centre_.compare_exchange_strong(nothing, Centre::kHint);
    refresh();
}

void CBurnPage::stopBurn() {
    if (BurnAdmin::peekInstance() == nullptr)
        return;
    chooseButton_->setEnabled(true);
    if (GlobalStorage::getInstance().getSnFile().isLoaded() != 0)
        snAddressBox_->setEnabled(true);
    BurnAdmin::destroyInstance();
    burning_ = false;
    updateHint();
    updateStartButton();
    for (BurnAvatar& slot : slots_) {
        if (slot.getAgent() != nullptr && !slot.getAgent()->is_done())
            slot.releaseSn();
    }
    refresh();
}

void CBurnPage::updateStartButton() {
    startButton_->setText((burning_ ? strings::kStopBurn : strings::kStartBurn).toString());
}

void CBurnPage::updateHint() {
    hint_->setText((burning_ ? strings::kConnectDevice : strings::kBurnStopped).toString());
}

void CBurnPage::refreshBurnCount() {
    refresher_.request();
}

void CBurnPage::refresh() {
    const Centre centre = centre_;
    hint_->setVisible(centre == Centre::kHint);
    tileArea_->setVisible(centre == Centre::kTiles);
    burnCountBox_->setText(QString::number(GlobalStorage::getInstance().getFlashCount()));
    for (const auto& display : displays_)
        display->refresh();
    showNotice();
}

// The refreshes go on while the operator reads; what comes up meanwhile is shown once, afterwards.
void CBurnPage::showNotice() {
    if (noticeOpen_)
        return;
    noticeOpen_ = true;
    while (const char* const notice = notice_.exchange(nullptr))
        prompts().showBox(this, QString::fromUtf8(notice), {}, BoxType::kPlain);
    noticeOpen_ = false;
}

void CBurnPage::showLater(const char* notice) {
    notice_ = notice;
    refresher_.request();
}

std::wstring CBurnPage::portOf(const BurnAvatar& slot) {
    const std::lock_guard guard(pageLock_);
    return slot.getPlugId();
}

BurnAvatar* CBurnPage::findAvatar(const std::wstring& deviceId) {
    const std::lock_guard guard(pageLock_);
    const std::wstring curPlugId = makePlugId(deviceId);
    BurnAvatar* firstFree = nullptr;
    for (BurnAvatar& slot : slots_) {
        const std::wstring plugId = slot.getPlugId();
        if (plugId.empty() && firstFree == nullptr)
            firstFree = &slot;
        if (plugId == curPlugId)
            return &slot;
    }
    if (firstFree != nullptr)
        firstFree->setDeviceId(deviceId);
    return firstFree;
}

void CBurnPage::onPlug(SesHandle session) {
    TRACE("onPlug, device_id=%s, bus_no=%d\n", session->device_id.c_str(), session->bus_no);
    centre_ = Centre::kTiles;
    refresher_.request();
    const std::wstring deviceId = text::widen(session->device_id);
    BurnAvatar* const slot = claimSlot(deviceId);
    if (slot == nullptr) {
        showLater("avatar is empty");
        return;
    }
    slot->setConnected(true);
    DeviceDisplay* const display = slot->getDisplay();
    if (display == nullptr) {
        showLater("display is empty");
        return;
    }
    display->setActive(true);
    display->setName(deviceId);
    display->setStatus(L"设备已插入！");
}

// Finds the slot of a device that has just arrived and puts the port's label on its tile.
BurnAvatar* CBurnPage::claimSlot(const std::wstring& deviceId) {
    const std::lock_guard guard(labelLock_);
    plugged_ = true;
    BurnAvatar* const slot = findAvatar(deviceId);
    if (slot != nullptr && slot->getDisplay() != nullptr)
        slot->getDisplay()->setTag(tagMap_.findTag(makePlugId(deviceId)).tag);
    return slot;
}

void CBurnPage::onBurnerReady(SesHandle session) {
    TRACE("onBurnerReady, device_id=%s\n", session->device_id.c_str());
    BurnAvatar* const slot = findAvatar(text::widen(session->device_id));
    if (slot != nullptr)
        slot->startBurn(firmware_.getBurnItems());
}

void CBurnPage::onRemove(SesHandle session) {
    TRACE("onRemove, device_id=%s\n", session->device_id.c_str());
    const BurnAdmin* const admin = BurnAdmin::peekInstance();
    if (admin != nullptr && admin->getSessionCount() == 0) {
        Centre tiles = Centre::kTiles;
        centre_.compare_exchange_strong(tiles, Centre::kHint);
        refresher_.request();
    }
    deviceRemoved(text::widen(session->device_id));
}

void CBurnPage::deviceRemoved(const std::wstring& deviceId) {
    const std::lock_guard guard(pageLock_);
    for (BurnAvatar& slot : slots_) {
        if (slot.getDeviceId() != deviceId || !slot.isConnected())
            continue;
        slot.setConnected(false);
        if (slot.getAgent() != nullptr && !slot.getAgent()->is_done())
            slot.releaseSn();
        slot.setAgent(nullptr);
        if (DeviceDisplay* const display = slot.getDisplay(); display != nullptr) {
            display->setActive(false);
            display->setStatus(L"设备已移除！");
            display->setProgress(0);
        }
    }
}

void CBurnPage::onError(SesHandle session, std::uint32_t code, const std::string& message) {
    TRACE("onError, device_id=%s, error=0x%x\n", session->device_id.c_str(), code);
    const BurnAvatar* const slot = findAvatar(text::widen(session->device_id));
    if (slot != nullptr && slot->getDisplay() != nullptr)
        slot->getDisplay()->setError(code, text::widen(message));
}

void CBurnPage::saveTags() {
    {
        const std::lock_guard guard(labelLock_);
        if (plugged_)
            tagMap_.clearTags();
        for (std::size_t i = 0; i < kSlots; ++i) {
            const std::wstring plugId = portOf(slots_[i]);
            tagMap_.storeTag(plugId,
                             {static_cast<std::int32_t>(i), plugId, displays_[i]->getTag()});
        }
    }
    if (!tagMap_.save())
        LOG_E("the labels of the ports cannot be saved to tag_map");
}
