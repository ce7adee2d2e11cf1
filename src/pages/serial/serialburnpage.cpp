#include "pages/serial/serialburnpage.h"

#include <algorithm>
#include <vector>

#include "pages/serial/serialportlist.h"
#include "pages/tiletexts.h"
#include "ui/prompts.h"
#include "ui/stringtable.h"
#include "utils/text.h"
#include "utils/trace.h"

namespace {

// What stands between the last brackets of a friendly name, as in "MODEL (ttyUSB0)"; empty if that
// is no name.
std::wstring nameInBrackets(const std::wstring& friendlyName) {
    const std::size_t open = friendlyName.rfind(L'(');
    const std::size_t close = friendlyName.rfind(L')');
    if (open == std::wstring::npos || close == std::wstring::npos || close < open + 3)
        return {};
    return friendlyName.substr(open + 1, close - open - 1);
}

}  // namespace

CSerialBurnPage::CSerialBurnPage()
    : BurnPageBase({.caption = QStringLiteral("串口烧录"),
                    .snPathLabel = {284, 17, 39, 8},
                    .snPathBox = {319, 14, 157, 14},
                    .importButton = {489, 14, 50, 14},
                    .snAddressLabel = {9, 38, 55, 8},
                    .burnCountBox = {489, 36, 48, 14},
                    .tileArea = {7, 59, 536, 265},
                    .hint = strings::kConnectDevice.toString(),
                    .firstTileId = 11000,
                    .tileName = L"DEV",
                    .unpackDirectory = L".\\uart_temp_image\\"}) {}

CSerialBurnPage::~CSerialBurnPage() {
    // All at once, so that the slots wait for the slowest only.
    for (SerialAvatar& slot : slots_)
        slot.interrupt();
}

void CSerialBurnPage::addSlot(DeviceDisplay& tile) {
    tile.showTagBox(false);
    slots_.emplace_back(tile, firmware(), *this);
}

bool CSerialBurnPage::OnSetActive() {
    activated_ = true;
    showStoredSettings();
    return Page::OnSetActive();
}

void CSerialBurnPage::OnLeft() {
    if (isBurning())
        activated_ = false;
    BurnPageBase::OnLeft();
}

void CSerialBurnPage::onStartButton() {
    toggleBurn();
    refreshTileArea();
}

void CSerialBurnPage::startBurn() {
    if (!storeAddress())
        return;
    setBurning(true);
    lockChoices(true);
    showHintUnlessTiles();
    scanPorts();
}

void CSerialBurnPage::stopBurn() {
    setBurning(false);
    lockChoices(false);
    stopAll();
    refresh();
}

void CSerialBurnPage::stopAll() {
    for (SerialAvatar& slot : slots_)
        slot.stop();
}

void CSerialBurnPage::scanPorts() {
    std::vector<SSerInfo> ports;
    try {
        listSerialPorts(ports, false);
    } catch (const SerialPortListError& error) {
        TRACE("%s\n", text::narrow(error.text()).c_str());
        ports.clear();
    }
    TRACE("find %d ports\n", static_cast<int>(ports.size()));
    for (const SSerInfo& port : ports) {
        if (!isBurning())
            break;  // stopped while the operator was told of a port too many
        addPort(port.portName.empty() ? nameInBrackets(port.friendlyName) : port.portName);
    }
    refreshTileArea();
}

SerialAvatar* CSerialBurnPage::findAvatar(const std::wstring& port) {
    const auto first = [this](const auto& fits) -> SerialAvatar* {
        const auto slot = std::find_if(slots_.begin(), slots_.end(), fits);
        return slot != slots_.end() ? &*slot : nullptr;
    };
    if (SerialAvatar* const slot =
            first([&](const SerialAvatar& avatar) { return avatar.getPortName() == port; }))
        return slot;
    if (SerialAvatar* const slot =
            first([](const SerialAvatar& avatar) { return avatar.getPortName().empty(); }))
        return slot;
    return first([](const SerialAvatar& avatar) { return !avatar.isRunning(); });
}

void CSerialBurnPage::addPort(const std::wstring& port) {
    SerialAvatar* const slot = findAvatar(port);
    if (slot == nullptr) {
        prompts().showBox(this, QStringLiteral("超出支持的设备数量%1").arg(kSlots),
                          strings::kNotice.toString(), BoxType::kPlain);
        return;
    }
    slot->setPortName(port);
    slot->start();
}

void CSerialBurnPage::removePort(const std::wstring& port) {
    const auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const SerialAvatar& avatar) {
        return avatar.getPortName() == port;
    });
    if (slot == slots_.end())
        return;  // it never got a slot, or has lost it to another port
    slot->stop();
    slot->getTile().setActive(false);
    slot->getTile().setStatus(tiletexts::kRemoved);
    slot->getTile().setProgress(0);
}

void CSerialBurnPage::onDeviceChange(const platform::PortEvent& event) {
    if (!isBurning())
        return;
    if (event.kind == platform::PortEvent::Kind::kArrived) {
        TRACE("device arrived, port=%s\n", event.name.c_str());
        addPort(text::widen(event.name));
    } else {
        TRACE("device removed, port=%s\n", event.name.c_str());
        removePort(text::widen(event.name));
    }
    refreshTileArea();
}

void CSerialBurnPage::refreshTileArea() {
    // What a tile tells stays readable as long as its port is there.
    const bool used = std::any_of(slots_.begin(), slots_.end(),
                                  [](const SerialAvatar& slot) { return slot.isInUse(); });
    if (used)
        showTiles();
    else
        showHintInsteadOfTiles();
    refresh();
}
