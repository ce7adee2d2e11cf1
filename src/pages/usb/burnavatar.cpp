#include "pages/usb/burnavatar.h"

#include <utility>

#include "pages/burnpagebase.h"
#include "pages/tiletexts.h"
#include "storage/globalstorage.h"
#include "storage/usbtagmap.h"
#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "utils/trace.h"

#define LOG_TAG "BurnAvatar"

void BurnAvatar::setDeviceId(const std::wstring& deviceId) {
    deviceId_ = deviceId;
    plugId_ = makePlugId(deviceId);
}

void BurnAvatar::setConnected(bool connected) {
    connected_ = connected;
    if (connected)
        pluggedAt_ = std::chrono::steady_clock::now();
}

void BurnAvatar::startBurn(std::vector<BurnItem> items) {
    if (agent_ != nullptr)
        return;
    const BurnPageBase::RunningBurn running(page_);
    const std::string deviceId = text::narrow(deviceId_);
    GlobalStorage& storage = GlobalStorage::getInstance();
    if (storage.getSnFile().isLoaded() != 0) {
        sn_ = SnReservation(storage.getSnFile());
        if (!sn_) {
            display_.setProgress(0);
            display_.setStatus(tiletexts::kNumbersUsedUp);
            recordFailure("the serial numbers are used up");
            return;
        }
        if (sn_.sn().empty())
            LOG_W("a row without a number: no number is written, device_id=%s", deviceId.c_str());
        TRACE("SN=%s, device_id=%s\n", sn_.sn().c_str(), deviceId.c_str());
    }
    error_.clear();
    step_ = "the first SYNC";
    agent_ = std::make_unique<BurnAgent>(deviceId);
    if (sn_)
        agent_->set_sn(sn_.sn(), storage.getSnBurnAddr());
    agent_->run(std::move(items), this, CMD_CODE_FLASH_WRITE);
    if (!agent_->is_done())
        recordFailure(whatWentWrong());
}

BurnEnd BurnAvatar::burnEnd() const {
    BurnEnd end;
    end.road = BurnEnd::Road::kUsb;
    end.place = text::narrow(deviceId_);
    end.label = display_.getTag();
    end.package = page_.package();
    if (agent_ != nullptr)
        end.sn = agent_->get_sn();
    end.snAddress = GlobalStorage::getInstance().getSnBurnAddr();
    end.tileText = display_.getStatus();
    end.duration = std::chrono::steady_clock::now() - pluggedAt_;
    return end;
}

void BurnAvatar::recordFailure(const std::string& reason) const {
    BurnEnd end = burnEnd();
    end.reason = reason;
    page_.recordBurn(end);
}

std::string BurnAvatar::whatWentWrong() const {
    if (!error_.empty())
        return error_;
    return (interruption::requested() ? "stopped or unplugged at " : "a command failed at ") +
           step_;
}

void BurnAvatar::releaseSn() {
    sn_.giveBack();
}

void BurnAvatar::onBurnStart(BurnAgent* agent) {
    step_ = "the first image";
    display_.setName(text::widen(agent->get_device_id()));
    display_.setActive(true);
}

void BurnAvatar::onBurnProgress(BurnAgent* /*agent*/, const std::string& name, unsigned percent) {
    showProgress(text::widen(name), percent);
}

void BurnAvatar::onItemProgress(BurnAgent* /*agent*/, const BurnItem* item, unsigned percent) {
    showProgress(item->file, percent);
}

void BurnAvatar::showProgress(const std::wstring& name, unsigned percent) {
    step_ = text::narrow(name) + ", " + std::to_string(percent) + "%";
    display_.setProgress(static_cast<int>(percent));
    display_.setStatus(tiletexts::progress(name, static_cast<int>(percent)));
}

void BurnAvatar::onBurnDone(BurnAgent* agent) {
    const std::wstring success = tiletexts::success(text::widen(agent->get_sn()));
    // The tile comes last: what it tells is true whatever happens to the machine next.
    const auto unmarked = sn_.markBurned();
    BurnEnd end = burnEnd();
    end.good = true;
    end.tileText = success;
    page_.recordBurn(end);
    GlobalStorage::getInstance().increaseFlashCount();
    page_.tellUnmarked(unmarked);
    page_.refreshBurnCount();
    display_.setStatus(success);
}

void BurnAvatar::onBurnError(BurnAgent* /*agent*/, int code, const std::string& message) {
    error_ = "code=" + std::to_string(code) + ", " + message;
    display_.setStatus(tiletexts::failure(code, text::widen(message)));
    display_.setActive(false);
    releaseSn();
}
