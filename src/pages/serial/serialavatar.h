// One of the sixteen slots of the serial page: the link between a serial port, the tile that shows
// it, and the runs of the devices that come there.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <thread>

#include "pages/serial/serialrun.h"
#include "pages/serial/stopevent.h"
#include "ui/devicedisplay.h"

// All on the user-interface thread; nothing but the destructor waits for a run.
class SerialAvatar {
  public:
    // None is owned; all outlive the slot.
    SerialAvatar(DeviceDisplay& tile, const FirmwareManager& firmwareManager, BurnPageBase& page)
        : slot_{{}, tile, firmwareManager, page, stopEvent_} {}
    // Cuts all runs short and waits for their threads.
    ~SerialAvatar();
    SerialAvatar(const SerialAvatar&) = delete;
    SerialAvatar& operator=(const SerialAvatar&) = delete;

    DeviceDisplay& getTile() const { return slot_.tile; }

    // Empty until the slot gets a port; it stays when the device has gone.
    std::wstring getPortName() const { return slot_.portName; }
    void setPortName(const std::wstring& portName);

    // From start until the run has ended or stop was called.
    bool isRunning() const { return run_ != nullptr && run_->isRunning(); }

    // From start, whatever came of it, until stop was called: what the tile tells is news.
    bool isInUse() const { return inUse_; }

    // Draws a serial number, if a list is loaded, and starts a run on a thread of its own, unless
    // one is running or the numbers are used up.
    void start();

    // Asks the run to end. It may go on until its exchange under way is over, also while a new run
    // has begun.
    void stop();

    // Ends the waits of all runs, at the end of the program.
    void interrupt();

  private:
    struct ServeThread {
        std::unique_ptr<SerialRun> run;
        std::jthread thread;  // empty if it could not be made
    };

    StopEvent stopEvent_;
    SerialSlot slot_;
    bool inUse_ = false;
    SerialRun* run_ = nullptr;        // the latest
    std::list<ServeThread> threads_;  // the latest, and earlier ones that may still wind down
};
