#include "pages/serial/serialavatar.h"

#include <system_error>
#include <utility>

#include "pages/burnpagebase.h"
#include "pages/tiletexts.h"
#include "storage/globalstorage.h"
#include "utils/interruption.h"
#include "utils/text.h"
#include "utils/trace.h"

SerialAvatar::~SerialAvatar() {
    interrupt();
}

void SerialAvatar::setPortName(const std::wstring& portName) {
    slot_.portName = portName;
    slot_.tile.setName(portName);
}

void SerialAvatar::start() {
    if (isRunning())
        return;
    inUse_ = true;
    if (run_ != nullptr)
        run_->leaveTile();
    GlobalStorage& storage = GlobalStorage::getInstance();
    SnReservation sn;
    if (storage.getSnFile().isLoaded() != 0) {
        sn = SnReservation(storage.getSnFile());
        if (!sn) {
            slot_.tile.setProgress(0);
            slot_.tile.setStatus(tiletexts::kNumbersUsedUp);
            slot_.page.recordBurn({.road = BurnEnd::Road::kSerial,
                                   .place = text::narrow(slot_.portName),
                                   .package = slot_.page.package(),
                                   .reason = "no serial number is left",
                                   .tileText = slot_.tile.getStatus()});
            return;
        }
    }
    threads_.remove_if([](const ServeThread& thread) { return thread.run->hasEnded(); });
    ServeThread& fresh = threads_.emplace_back();
    fresh.run = std::make_unique<SerialRun>(slot_, std::move(sn), storage.getSnBurnAddr());
    run_ = fresh.run.get();
    try {
        fresh.thread = std::jthread([run = run_](const std::stop_token& programEnds) {
            const interruption::Scope scope(programEnds);
            run->serve();
        });
    } catch (const std::system_error& problem) {
        TRACE("create serve thread failed, error=%d\n", problem.code().value());
    }
}

void SerialAvatar::stop() {
    inUse_ = false;
    if (run_ != nullptr)
        run_->stop();
    stopEvent_.set();
}

void SerialAvatar::interrupt() {
    for (ServeThread& thread : threads_) {
        thread.run->stop();
        thread.thread.request_stop();
    }
}
