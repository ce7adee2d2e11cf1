// The page on which an operator burns devices over serial ports. It finds the ports itself, at each
// start and by the system's word while burning, and gives every port to one of sixteen slots, which
// burns the device there. An idle slot is taken over by a new port once all slots have had one.
#pragma once

#include <deque>
#include <string>

#include "pages/burnpagebase.h"
#include "pages/serial/serialavatar.h"
#include "platform/portevents.h"

// All on the user-interface thread, save for refreshBurnCount.
class CSerialBurnPage final : public BurnPageBase {
  public:
    CSerialBurnPage();
    // Cuts short what still winds down and waits for it.
    ~CSerialBurnPage() override;

    // Whether the page has been opened; ports that come and go before that are none of its
    // business.
    bool isActivated() const { return activated_; }

    // A port has come or gone. Does nothing while not burning.
    void onDeviceChange(const platform::PortEvent& event);

    bool OnSetActive() override;
    void OnLeft() override;

  private:
    void startBurn() override;
    // Asks all slots to end and waits for none.
    void stopBurn() override;
    void onStartButton() override;
    void addSlot(DeviceDisplay& tile) override;

    void scanPorts();
    void addPort(const std::wstring& port);
    void removePort(const std::wstring& port);
    SerialAvatar* findAvatar(const std::wstring& port);
    void refreshTileArea();
    void stopAll();

    bool activated_ = false;
    std::deque<SerialAvatar> slots_;
};
