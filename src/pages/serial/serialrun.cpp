#include "pages/serial/serialrun.h"

#include <utility>

#include "pages/burnpagebase.h"
#include "pages/tiletexts.h"
#include "platform/serialdevice.h"
#include "storage/globalstorage.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/uart/flash_loader.h"
#include "vorlan/uart/ram_loader.h"

// In the log a run is its slot: whoever reads the lines of a port finds them under one tag.
#define LOG_TAG "SerialAvatar"

using namespace std::chrono_literals;

namespace {

constexpr int kRomAttempts = 10;
constexpr auto kPauseAfterFailedAttempt = 1000ms;
constexpr auto kPauseAfterRom = 2000ms;  // in which the flash proxy starts
constexpr std::uint32_t kRamWindow = 0x60000000;

// How a device is burned.
struct Config {
    bool syncRamLoader = true;  // find the flash proxy's rate
    bool md5Check = true;
    bool download = true;
    bool skipRom = false;
    std::uint8_t endAction = 2;        // of UART_FLASH_END
    std::uint32_t baudrate = 3000000;  // to change to; 0 leaves the rate as it is
};
constexpr Config config;

// An offset in the flash as an address of the device's window; one above the window's range wraps.
std::uint32_t windowAddress(std::uint32_t offset) {
    return offset - kFlashWindow;
}

}  // namespace

SerialRun::SerialRun(SerialSlot slot, SnReservation sn, std::uint32_t snAddr)
    : slot_(std::move(slot)),
      begin_(std::chrono::steady_clock::now()),
      items_(slot_.firmwareManager.getBurnItems()),
      package_(slot_.page.package()),
      sn_(sn ? sn.sn() : std::string()),
      snAddr_(snAddr),
      context_(uart_context_create()),
      reservation_(std::move(sn)),
      snSettled_(!reservation_),
      tile_(&slot_.tile) {
    context_->user = this;
    context_->onProgress = onBurnProgress;
    context_->onFinish = onBurnFinished;
    context_->onError = onBurnError;
}

void SerialRun::serve() {
    const BurnPageBase::RunningBurn running(slot_.page);
    const std::string port = text::narrow(slot_.portName);
    LOG_I("start serve thread, port=%s", port.c_str());
    onTile([](DeviceDisplay& tile) {
        tile.setActive(true);
        tile.setProgress(0);
    });
    openPort();
    bool good = false;
    int ret = prepareDevice();
    if (ret == kUartOk && !uart_context_stopped(context_.get())) {
        ret = burnItems();
        if (config.md5Check && config.download && !sn_.empty()) {
            if (SnReservation sn = takeReservation())
                ret = burnSn(std::move(sn));
        }
        good = ret == kUartOk && burnedItems_ == items_.size();
        if (good && sn_.empty())
            useUpRowWithoutNumber();
        good = good && snSettled_;
        if (good) {
            recordEnd(true);
            context_->onFinish(context_.get());
        }
    }
    releaseSn();
    serial_close(context_->port);
    if (!good)
        recordEnd(false);
    LOG_I("serve thread stopped, port=%s", port.c_str());
    ended_ = true;
}

void SerialRun::stop() {
    context_->stop = true;
    releaseSn();
}

void SerialRun::leaveTile() {
    const std::lock_guard guard(tileLock_);
    if (tile_ != nullptr)
        tileText_ = tile_->getStatus();
    tile_ = nullptr;
}

template <typename Show>
void SerialRun::onTile(const Show& show) {
    const std::lock_guard guard(tileLock_);
    if (tile_ != nullptr)
        show(*tile_);
}

// A port that cannot be opened shows in the first exchange.
void SerialRun::openPort() {
    uart_context_open_port(context_.get(), slot_.portName);
    const std::string holder = platform::serialPortHolder();
    if (context_->port != nullptr || holder.empty() || portToldBusy_)
        return;
    portToldBusy_ = true;
    LOG_W("%s is in use by %s", text::narrow(slot_.portName).c_str(), holder.c_str());
}

// Brings the device to the point where its flash proxy takes images at the full rate. A stop in
// between is no failure.
int SerialRun::prepareDevice() {
    if (!config.skipRom) {
        const int ret = connectWithRom();
        if (ret != kUartOk)
            return fail(ret, "CONNECT WITH ROM TRIGGER ERROR");
        if (uart_context_stopped(context_.get()))
            return kUartOk;
        slot_.stopEvent.wait(kPauseAfterRom);
    }
    if (config.syncRamLoader) {
        LOG_I("SYNC WITH RAM LOADER");
        if (flash_loader_handshake(context_.get()) != kUartOk)
            return fail(-1, "HANDSHAKE FAILED");
    }
    if (config.baudrate != 0) {
        LOG_I("CHANGE BAUDRATE");
        const int ret = flash_loader_change_baudrate(context_.get(), config.baudrate);
        if (ret != kUartOk)
            return fail(ret, "CHANGE BAUDRATE, RET=" + std::to_string(ret));
    }
    return kUartOk;
}

int SerialRun::connectWithRom() {
    int ret = kUartOk;
    for (int attempt = 0; attempt < kRomAttempts; ++attempt) {
        if (uart_context_stopped(context_.get()))
            break;
        // An earlier run, or whoever has the port, may have let go of it by now.
        if (context_->port == nullptr && attempt > 0)
            openPort();
        onTile([](DeviceDisplay& tile) { tile.setStatus(L"准备中..."); });
        ret = ram_loader_download(context_.get());
        if (ret == kUartOk)
            break;
        slot_.stopEvent.wait(kPauseAfterFailedAttempt);
    }
    return ret;
}

// A failed item does not keep the next ones from being burned. Gives the result of the last one.
int SerialRun::burnItems() {
    int ret = kUartOk;
    for (const BurnItem& item : items_) {
        if (uart_context_stopped(context_.get()))
            break;
        ret = burnItem(item, ret);
    }
    return ret;
}

// `ret` is what an item that leads to nothing leaves as it is.
int SerialRun::burnItem(const BurnItem& item, int ret) {
    const std::string path = text::narrow(item.file);
    const std::uint32_t address = windowAddress(item.addr);
    LOG_I("START TO BURN %s, ADDR=0x%x", path.c_str(), address);
    if (!config.download) {
        if (!config.md5Check)
            return ret;
        LOG_I("ONLY USE MD5 CHECK COMMAND");
        return flash_loader_md5_check(context_.get(), path.c_str(), address);
    }
    if (address < kRamWindow)
        return ret;
    if (address >= kFlashWindow) {
        LOG_I(config.md5Check ? "DOWNLOAD TO FLASH WITH MD5 CHECK" : "DOWNLOAD CODE TO FLASH");
        ret = flash_loader_download_file(context_.get(), path.c_str(), address, config.endAction,
                                         config.md5Check);
    } else {
        if (config.md5Check)
            LOG_I("DOWNLOAD TO FLASH WITH MD5 CHECK");
        LOG_I(config.md5Check ? "DOWNLOAD CODE TO RAM WITH MD5 CHECK" : "DOWNLOAD CODE TO RAM");
        LOG_W("%s is for RAM, to which nothing is sent: port=%s", path.c_str(),
              text::narrow(slot_.portName).c_str());
        ret = flash_loader_download_ram(context_.get(), path.c_str(), address, config.endAction);
    }
    if (ret == kUartOk)
        ++burnedItems_;
    return ret;
}

int SerialRun::burnSn(SnReservation sn) {
    LOG_I("DOWNLOAD TO FLASH WITH MD5 CHECK");
    const int ret = flash_loader_download_buffer(
        context_.get(), reinterpret_cast<const std::uint8_t*>(sn_.data()),
        static_cast<std::uint32_t>(sn_.size()), windowAddress(snAddr_), config.endAction,
        config.md5Check, L"SN=" + text::widen(sn_));
    if (ret == kUartOk)
        markBurned(sn);
    return ret;
}

// A row of the list may have no number: nothing is written for it, and the next device draws the
// next row.
void SerialRun::useUpRowWithoutNumber() {
    SnReservation sn = takeReservation();
    if (!sn)
        return;
    LOG_W("the row of the list has no number, none is written: port=%s",
          text::narrow(slot_.portName).c_str());
    markBurned(sn);
}

void SerialRun::markBurned(SnReservation& sn) {
    snSettled_ = true;
    slot_.page.tellUnmarked(sn.markBurned());
}

SnReservation SerialRun::takeReservation() {
    const std::lock_guard guard(snLock_);
    return std::move(reservation_);
}

// The pool is asked outside the lock.
void SerialRun::releaseSn() {
    takeReservation().giveBack();
}

void SerialRun::recordEnd(bool good) {
    BurnEnd end{.road = BurnEnd::Road::kSerial,
                .place = text::narrow(slot_.portName),
                .package = package_,
                .sn = sn_,
                .snAddress = snAddr_,
                .good = good,
                .duration = std::chrono::steady_clock::now() - begin_};
    if (good) {
        end.tileText = tiletexts::success(text::widen(sn_));
    } else {
        end.tileText = lastTileText();
        end.reason = lastError_;
        if (context_->stop)
            end.reason.insert(0, end.reason.empty() ? "stopped" : "stopped, ");
        else if (end.reason.empty())
            end.reason = "an image, or the number, lies outside the flash";
    }
    slot_.page.recordBurn(end);
}

std::wstring SerialRun::lastTileText() {
    const std::lock_guard guard(tileLock_);
    return tile_ != nullptr ? tile_->getStatus() : tileText_;
}

int SerialRun::fail(int code, const std::string& description) {
    context_->onError(context_.get(), code, text::widen(description));
    LOG_E("%s", description.c_str());
    return code;
}

SerialRun& SerialRun::runOf(const UartContext* context) {
    return *static_cast<SerialRun*>(context->user);
}

void SerialRun::onBurnProgress(UartContext* context, const std::wstring& name, int percent) {
    runOf(context).onTile([&](DeviceDisplay& tile) {
        tile.setProgress(percent);
        tile.setStatus(tiletexts::progress(name, percent));
    });
}

void SerialRun::onBurnFinished(UartContext* context) {
    SerialRun& run = runOf(context);
    run.onTile(
        [&](DeviceDisplay& tile) { tile.setStatus(tiletexts::success(text::widen(run.sn_))); });
    GlobalStorage::getInstance().increaseFlashCount();
    run.slot_.page.refreshBurnCount();
}

void SerialRun::onBurnError(UartContext* context, int code, const std::wstring& description) {
    SerialRun& run = runOf(context);
    run.lastError_ = text::narrow(description) + ", code " + std::to_string(code);
    run.onTile([&](DeviceDisplay& tile) {
        tile.setStatus(tiletexts::failure(code, description));
        tile.setActive(false);
    });
    run.releaseSn();
}
