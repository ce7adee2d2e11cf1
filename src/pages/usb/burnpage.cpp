#include "pages/usb/burnpage.h"

#include <utility>

#include "pages/tiletexts.h"
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

constexpr const wchar_t* kOwnBurnerImage = L"\\images\\burner.img";
constexpr std::uint32_t kRomWaitMs = 100;

}  // namespace

CBurnPage::CBurnPage()
    : BurnPageBase({.caption = QStringLiteral("USB烧录"),
                    .snPathLabel = {284, 17, 35, 8},
                    .snPathBox = {320, 14, 157, 14},
                    .importButton = {488, 14, 50, 14},
                    .snAddressLabel = {9, 38, 50, 8},
                    .burnCountBox = {489, 36, 47, 14},
                    .tileArea = {7, 58, 536, 265},
                    .hint = QStringLiteral("请连接待烧录的USB设备！"),
                    .firstTileId = 10000,
                    .tileName = L"DEV ",
                    .unpackDirectory = L".\\temp_image\\"}) {
    tagMap_.load();
}

CBurnPage::~CBurnPage() {
    if (isBurning())
        BurnAdmin::destroyInstance();
}

void CBurnPage::addControls(const DialogTemplate& controls) {
    const QPushButton* const saveTagsButton =
        controls.button({297, 36, 50, 14}, QStringLiteral("保存标签"));
    connect(saveTagsButton, &QPushButton::clicked, this, [this] { saveTags(); });
}

void CBurnPage::addSlot(DeviceDisplay& tile) {
    slots_.emplace_back(tile, *this);
}

bool CBurnPage::OnSetActive() {
    if (!checkUsbDriver())
        return false;
    showStoredSettings();
    return Page::OnSetActive();
}

bool CBurnPage::checkUsbDriver() {
    if (usbDriverWorks())
        return true;
    prompts().showBox(this, QStringLiteral("检测到libusb驱动未安装，请先安装驱动"),
                      strings::kNotice.toString(), BoxType::kWarning);
    return false;
}

void CBurnPage::startBurn() {
    if (!storeAddress())
        return;
    BurnAdmin* const admin = BurnAdmin::getInstance();
    if (admin == nullptr)
        return;
    lockChoices(true);
    admin->setRomWait(kRomWaitMs);
    std::wstring burner = firmware().getBurnerPath();
    if (burner.empty())
        burner = fileutil::inCurrentDirectory(kOwnBurnerImage);
    tellUnlessThere(burner);
    admin->setBurnerPath(text::narrow(burner));
    admin->startMonitor(*this);
    setBurning(true);
    // A device that was plugged in already may have brought up the tile area by now.
    showHintUnlessTiles();
    refresh();
}

// Without the image no device gets further than its plug-in. A box is enough: the operator may put
// the file in its place while the run goes on.
void CBurnPage::tellUnlessThere(const std::wstring& burner) {
    if (fileutil::openFile(text::narrow(burner), "rb") != nullptr)
        return;
    const std::string path = fileutil::nativePath(burner);
    LOG_E("the burner image %s cannot be opened", path.c_str());
    showLater(QStringLiteral("打不开burner镜像，设备将无法烧录！\n路径：%1")
                  .arg(QString::fromStdString(path)),
              strings::kNotice.toString());
}

void CBurnPage::stopBurn() {
    if (BurnAdmin::peekInstance() == nullptr)
        return;
    lockChoices(false);
    BurnAdmin::destroyInstance();
    setBurning(false);
    for (BurnAvatar& slot : slots_) {
        if (slot.getAgent() != nullptr && !slot.getAgent()->is_done())
            slot.releaseSn();
    }
    refresh();
}

std::wstring CBurnPage::portOf(const BurnAvatar& slot) {
    const std::lock_guard guard(pageLock_);
    return slot.getPlugId();
}

BurnAvatar* CBurnPage::findAvatar(const std::wstring& deviceId) {
    const std::lock_guard guard(pageLock_);
    const std::wstring port = makePlugId(deviceId);
    BurnAvatar* firstFree = nullptr;
    for (BurnAvatar& slot : slots_) {
        const std::wstring plugId = slot.getPlugId();
        if (plugId.empty() && firstFree == nullptr)
            firstFree = &slot;
        if (plugId == port)
            return &slot;
    }
    if (firstFree != nullptr)
        firstFree->setDeviceId(deviceId);
    return firstFree;
}

void CBurnPage::onPlug(SesHandle session) {
    TRACE("onPlug, device_id=%s, bus_no=%d\n", session->device_id.c_str(), session->bus_no);
    showTiles();
    const std::wstring deviceId = text::widen(session->device_id);
    BurnAvatar* const slot = claimSlot(deviceId);
    if (slot == nullptr) {
        showLater(QStringLiteral("avatar is empty"));
        return;
    }
    slot->setConnected(true);
    DeviceDisplay& display = slot->getDisplay();
    display.setActive(true);
    display.setName(deviceId);
    display.setStatus(L"设备已插入！");
}

// Finds the slot of a device that has just arrived and puts the port's label on its tile.
BurnAvatar* CBurnPage::claimSlot(const std::wstring& deviceId) {
    const std::lock_guard guard(labelLock_);
    plugged_ = true;
    BurnAvatar* const slot = findAvatar(deviceId);
    if (slot != nullptr)
        slot->getDisplay().setTag(tagMap_.findTag(makePlugId(deviceId)).tag);
    return slot;
}

void CBurnPage::onBurnerReady(SesHandle session) {
    TRACE("onBurnerReady, device_id=%s\n", session->device_id.c_str());
    BurnAvatar* const slot = findAvatar(text::widen(session->device_id));
    if (slot != nullptr)
        slot->startBurn(firmware().getBurnItems());
    else
        recordFailure(session, "all sixteen tiles belong to other ports");
}

void CBurnPage::onRemove(SesHandle session) {
    TRACE("onRemove, device_id=%s\n", session->device_id.c_str());
    const BurnAdmin* const admin = BurnAdmin::peekInstance();
    if (admin != nullptr && admin->getSessionCount() == 0)
        showHintInsteadOfTiles();
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
        slot.getDisplay().setActive(false);
        slot.getDisplay().setStatus(tiletexts::kRemoved);
        slot.getDisplay().setProgress(0);
    }
}

void CBurnPage::onError(SesHandle session, std::uint32_t code, const std::string& message) {
    TRACE("onError, device_id=%s, error=0x%x\n", session->device_id.c_str(), code);
    const BurnAvatar* const slot = findAvatar(text::widen(session->device_id));
    if (slot != nullptr)
        slot->getDisplay().setError(code, text::widen(message));
}

void CBurnPage::onBurnerMissing(SesHandle session, const std::string& reason) {
    recordFailure(session, reason);
}

void CBurnPage::recordFailure(SesHandle session, const std::string& reason) {
    if (const BurnAvatar* const slot = findAvatar(text::widen(session->device_id)))
        slot->recordFailure(reason);
    else
        recordBurn({.road = BurnEnd::Road::kUsb,
                    .place = session->device_id,
                    .package = package(),
                    .reason = reason});
}

void CBurnPage::saveTags() {
    {
        const std::lock_guard guard(labelLock_);
        if (plugged_)
            tagMap_.clearTags();
        for (std::size_t i = 0; i < kSlots; ++i) {
            const std::wstring plugId = portOf(slots_[i]);
            tagMap_.storeTag(plugId, {static_cast<std::int32_t>(i), plugId, tile(i)->getTag()});
        }
    }
    if (tagMap_.save())
        return;
    LOG_E("the labels of the ports cannot be saved to tag_map");
    showLater(QStringLiteral("端口标签无法保存到tag_map！"), strings::kNotice.toString());
}
