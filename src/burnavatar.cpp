#include "burnavatar.h"

#include <utility>

#include "burnpage.h"
#include "storage/globalstorage.h"
#include "storage/usbtagmap.h"
#include "tiletexts.h"
#include "utils/text.h"
#include "utils/trace.h"

namespace {

SerialNumFile& snFile() {
    return GlobalStorage::getInstance().getSnFile();
}

}  // namespace

void BurnAvatar::setDeviceId(const std::wstring& deviceId) {
    deviceId_ = deviceId;
    plugId_ = makePlugId(deviceId);
}

void BurnAvatar::startBurn(std::vector<BurnItem> items) {
    if (agent_ != nullptr)
        return;
    const std::string deviceId = text::narrow(deviceId_);
    snRecord_ = nullptr;
    if (snFile().isLoaded() != 0) {
        snRecord_ = snFile().takeNext();
        if (snRecord_ == nullptr) {
            if (display_ != nullptr) {
                display_->setProgress(0);
                display_->setStatus(tiletexts::kNumbersUsedUp);
            }
            return;
        }
        TRACE("SN=%s, device_id=%s\n", snRecord_->sn.c_str(), deviceId.c_str());
    }
    agent_ = std::make_unique<BurnAgent>(deviceId);
    if (snRecord_ != nullptr)
        agent_->set_sn(snRecord_->sn, GlobalStorage::getInstance().getSnBurnAddr());
    agent_->run(std::move(items), this, CMD_CODE_FLASH_WRITE);
}

void BurnAvatar::releaseSn() {
    if (snRecord_ != nullptr && snFile().isLoaded() != 0)
        snFile().releaseRecord(snRecord_);
    snRecord_ = nullptr;
}

void BurnAvatar::onBurnStart(BurnAgent* agent) {
    if (display_ == nullptr)
        return;
    display_->setName(text::widen(agent->get_device_id()));
    display_->setActive(true);
}

void BurnAvatar::onBurnProgress(BurnAgent* /*agent*/, const std::string& name, unsigned percent) {
    showProgress(text::widen(name), percent);
}

void BurnAvatar::onItemProgress(BurnAgent* /*agent*/, const BurnItem* item, unsigned percent) {
    showProgress(item->file, percent);
}

void BurnAvatar::showProgress(const std::wstring& name, unsigned percent) {
    if (display_ == nullptr)
        return;
    display_->setProgress(static_cast<int>(percent));
    display_->setStatus(tiletexts::progress(name, static_cast<int>(percent)));
}

void BurnAvatar::onBurnDone(BurnAgent* /*agent*/) {
    if (display_ == nullptr)
        return;
    display_->setStatus(
        tiletexts::success(agent_ != nullptr ? text::widen(agent_->get_sn()) : L""));
    if (snRecord_ != nullptr && snFile().isLoaded() != 0)
        snFile().markBurned(snRecord_);
    GlobalStorage::getInstance().increaseFlashCount();
    if (page_ != nullptr)
        page_->refreshBurnCount();
}

void BurnAvatar::onBurnError(BurnAgent* /*agent*/, int code, const std::string& message) {
    if (display_ == nullptr)
        return;
    display_->setStatus(tiletexts::failure(code, text::widen(message)));
    display_->setActive(false);
    releaseSn();
}
