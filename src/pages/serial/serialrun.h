// One run of a serial slot: opens the port, brings the device through its ROM loader and the flash
// proxy, burns every image and the serial number, and reports on the slot's tile. Once for one
// device; the slot's next device gets a new run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pages/serial/stopevent.h"
#include "storage/serialnumfile.h"
#include "ui/devicedisplay.h"
#include "vorlan/firmware/firmwaremanager.h"
#include "vorlan/uart/header_configure.h"

class BurnPageBase;

// What a slot lends its runs; all of it outlives them. Pointers may be null.
struct SerialSlot {
    std::wstring portName;
    DeviceDisplay* tile = nullptr;
    const FirmwareManager* firmwareManager = nullptr;
    BurnPageBase* page = nullptr;
    StopEvent* stopEvent = nullptr;  // cuts the pauses short; not null
};

class SerialRun {
  public:
    // With the record of a serial number that was drawn for the device, or null, and the flash
    // offset at which the number is written. Lists the images at once: the operator may choose
    // another package as soon as the run has been asked to stop. User-interface thread.
    SerialRun(SerialSlot slot, SerialNumFile::SnRecord* snRecord, std::uint32_t snAddr);
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
    // What has become of the serial number that was drawn.
    enum class SnState { kNone, kReserved, kWriting, kBurned, kGivenBack };

    static SerialRun& runOf(const UartContext* context);
    static void onBurnProgress(UartContext* context, const std::wstring& name, int percent);
    static void onBurnFinished(UartContext* context);
    static void onBurnError(UartContext* context, int code, const std::wstring& description);

    void openPort();
    int prepareDevice();
    int connectWithRom();
    int burnItems();
    int burnItem(const BurnItem& item, int ret);
    int burnSn();
    int fail(int code, const std::string& description);

    template <typename Show>
    void onTile(const Show& show);

    bool beginSn();
    bool isSnSettled();
    void useUpRowWithoutNumber();
    void markBurned();
    void releaseSn();
    void giveBack();
    void logEnd(bool good);

    const SerialSlot slot_;
    const std::vector<BurnItem> items_;
    SerialNumFile::SnRecord* const snRecord_;  // null if there is no list of numbers
    const std::string sn_;  // of the record, which may be gone when the number is settled
    const std::uint32_t snAddr_;
    const std::unique_ptr<UartContext> context_;
    std::size_t burnedItems_ = 0;
    bool portToldBusy_ = false;
    std::string lastError_;  // that the operator was told of
    std::atomic<bool> ended_{false};

    std::mutex lock_;  // guards the state, on which a stop and the run have to agree
    SnState snState_;

    std::mutex tileLock_;  // held while something is shown, so that nothing comes up too late
    DeviceDisplay* tile_;  // null once the run has left it
};
