// One run of a serial slot: opens the port, brings the device through its ROM loader and the flash
// proxy, burns every image and the serial number, and reports on the slot's tile. Once for one
// device; the slot's next device gets a new run.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pages/serial/stopevent.h"
#include "storage/productionrecord.h"
#include "storage/snreservation.h"
#include "ui/devicedisplay.h"
#include "vorlan/firmware/firmwaremanager.h"
#include "vorlan/uart/uartcontext.h"

class BurnPageBase;

// What a slot lends its runs; all of it outlives them.
struct SerialSlot {
    std::wstring portName;
    DeviceDisplay& tile;
    const FirmwareManager& firmwareManager;
    BurnPageBase& page;
    StopEvent& stopEvent;  // cuts the pauses short
};

class SerialRun {
  public:
    // With the serial number that was drawn for the device, if any, and the flash offset at which
    // it is written. Lists the images at once: the operator may choose another package as soon as
    // the run has been asked to stop. User-interface thread.
    SerialRun(SerialSlot slot, SnReservation sn, std::uint32_t snAddr);
    SerialRun(const SerialRun&) = delete;
    SerialRun& operator=(const SerialRun&) = delete;

    // The whole run, on its own thread; once. An interruption of that thread cuts every exchange
    // and pause short.
    void serve();

    // Asks the run to end, which takes as long as the exchange or the pause under way. A number
    // whose download has not begun is given back at once. Any thread; waits for nothing.
    void stop();

    // Nothing of this run is shown from now on: the tile belongs to the slot's next one, which may
    // be for another port. Any thread.
    void leaveTile();

    // Neither asked to stop nor at its end. Any thread.
    bool isRunning() const { return !context_->stop && !ended_; }
    // Nothing of the run happens any more once this is true. Any thread.
    bool hasEnded() const { return ended_; }

  private:
    static SerialRun& runOf(const UartContext* context);
    static void onBurnProgress(UartContext* context, const std::wstring& name, int percent);
    static void onBurnFinished(UartContext* context);
    static void onBurnError(UartContext* context, int code, const std::wstring& description);

    void openPort();
    int prepareDevice();
    int connectWithRom();
    int burnItems();
    int burnItem(const BurnItem& item, int ret);
    int burnSn(SnReservation sn);
    int fail(int code, const std::string& description);

    template <typename Show>
    void onTile(const Show& show);

    SnReservation takeReservation();
    void releaseSn();
    void useUpRowWithoutNumber();
    void markBurned(SnReservation& sn);
    void recordEnd(bool good);
    std::wstring lastTileText();

    const SerialSlot slot_;
    const std::chrono::steady_clock::time_point begin_;
    const std::vector<BurnItem> items_;
    const PackageIdentity package_;
    const std::string sn_;  // the number that was drawn; it may be none, or empty
    const std::uint32_t snAddr_;
    const std::unique_ptr<UartContext> context_;
    std::size_t burnedItems_ = 0;
    bool portToldBusy_ = false;
    std::string lastError_;  // that the operator was told of
    std::atomic<bool> ended_{false};

    // The number while it is not being written. Whoever takes it from here decides what becomes of
    // it: the run that writes it, or a stop that gives it back.
    std::mutex snLock_;
    SnReservation reservation_;
    bool snSettled_;  // the device has its number, or none was drawn; the run's own

    std::mutex tileLock_;    // held while something is shown, so that nothing comes up too late
    DeviceDisplay* tile_;    // null once the run has left it
    std::wstring tileText_;  // what it told then
};
