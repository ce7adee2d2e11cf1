#include "simulator/demo/consoleburner.h"

#include <cstdio>

#include "storage/globalstorage.h"
#include "utils/text.h"

namespace simulator {
namespace {

SerialNumFile& snFile() {
    return GlobalStorage::getInstance().getSnFile();
}

}  // namespace

std::size_t ConsoleBurner::findSlot(const std::string& deviceId) {
    const std::lock_guard guard(lock_);
    for (std::size_t i = 0; i < kSlots; ++i) {
        // Ports are seen for the first time from the top down, so a free slot ends the search.
        if (tiles_[i].deviceId.empty())
            tiles_[i].deviceId = deviceId;
        if (tiles_[i].deviceId == deviceId)
            return i;
    }
    return kSlots;
}

void ConsoleBurner::show(std::size_t index, Phase phase, unsigned percent,
                         const std::string& status) {
    const std::lock_guard guard(lock_);
    Tile& tile = tiles_[index];
    tile.phase = phase;
    tile.percent = percent;
    tile.status = status;
    changed_.notify_all();
}

ConsoleBurner::Tiles ConsoleBurner::tiles() const {
    const std::lock_guard guard(lock_);
    return tiles_;
}

bool ConsoleBurner::waitFor(const std::function<bool(const Tiles&)>& condition,
                            std::chrono::seconds limit,
                            const std::function<void(const Tiles&)>& whileWaiting) const {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const Tiles now = tiles();
        whileWaiting(now);
        if (condition(now))
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::unique_lock lock(lock_);
        changed_.wait_for(lock, std::chrono::milliseconds(100));
    }
}

void ConsoleBurner::onPlug(SesHandle session) {
    const std::size_t index = findSlot(session->device_id);
    if (index < kSlots)
        show(index, Phase::kPlugged, 0, "设备已插入！");
}

void ConsoleBurner::onBurnerReady(SesHandle session) {
    const std::size_t index = findSlot(session->device_id);
    if (index < kSlots)
        slots_[index].burn(*this, index, session->device_id);
}

void ConsoleBurner::onRemove(SesHandle session) {
    const std::size_t index = findSlot(session->device_id);
    if (index == kSlots)
        return;
    slots_[index].removed();
    show(index, Phase::kRemoved, 0, "设备已移除！");
}

void ConsoleBurner::onError(SesHandle session, std::uint32_t code, const std::string& message) {
    const std::size_t index = findSlot(session->device_id);
    char text[32];
    std::snprintf(text, sizeof text, "error=0x%x, des=", code);
    if (index < kSlots)
        show(index, Phase::kFailed, 0, text + message);
}

void ConsoleBurner::Slot::burn(ConsoleBurner& owner, std::size_t index,
                               const std::string& deviceId) {
    if (agent_ != nullptr)
        return;
    owner_ = &owner;
    index_ = index;
    if (snFile().isLoaded() != 0) {
        record_ = snFile().takeNext();
        if (record_ == nullptr) {
            owner.show(index, Phase::kFailed, 0, "SN号已耗尽，请导入新的SN号！");
            return;
        }
    }
    agent_ = std::make_unique<BurnAgent>(deviceId);
    if (record_ != nullptr)
        agent_->set_sn(record_->sn, GlobalStorage::getInstance().getSnBurnAddr());
    agent_->run(owner.firmware_.getBurnItems(), this, CMD_CODE_FLASH_WRITE);
    // A failed command is not reported: the tile keeps the last progress.
    const Tile last = owner.tiles()[index];
    if (!agent_->is_done())
        owner.show(index, Phase::kFailed, last.percent, last.status);
}

void ConsoleBurner::Slot::removed() {
    if (agent_ == nullptr)
        return;
    if (!agent_->is_done())
        releaseSn();
    agent_.reset();
    record_ = nullptr;
}

void ConsoleBurner::Slot::releaseSn() {
    if (record_ != nullptr && snFile().isLoaded() != 0)
        snFile().releaseRecord(record_);
    record_ = nullptr;
}

void ConsoleBurner::Slot::onBurnStart(BurnAgent* /*agent*/) {}

void ConsoleBurner::Slot::onBurnProgress(BurnAgent* /*agent*/, const std::string& name,
                                         unsigned percent) {
    owner_->show(index_, Phase::kBurning, percent,
                 "正在写入 " + name + ", 进度 " + std::to_string(percent) + "%");
}

void ConsoleBurner::Slot::onItemProgress(BurnAgent* agent, const BurnItem* item, unsigned percent) {
    onBurnProgress(agent, text::narrow(item->file), percent);
}

void ConsoleBurner::Slot::onBurnDone(BurnAgent* agent) {
    // Shown last, so that whoever waits for the tile finds the number marked.
    const std::string sn = agent->get_sn();
    if (record_ != nullptr && snFile().isLoaded() != 0)
        snFile().markBurned(record_);
    GlobalStorage::getInstance().increaseFlashCount();
    owner_->show(index_, Phase::kDone, 100, "烧录成功！" + (sn.empty() ? sn : "SN=" + sn));
}

void ConsoleBurner::Slot::onBurnError(BurnAgent* /*agent*/, int code, const std::string& message) {
    owner_->show(index_, Phase::kFailed, 0,
                 "出错, code=" + std::to_string(code) + ", des=" + message);
    releaseSn();
}

}  // namespace simulator
