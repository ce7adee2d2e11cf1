// One of the sixteen slots of the USB page: the link between a USB port, the tile that shows it,
// and the burn of the device that is plugged in there now. Draws the device's serial number, runs
// its BurnAgent, and shows on the tile what the agent reports.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "storage/productionrecord.h"
#include "storage/snreservation.h"
#include "ui/devicedisplay.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/burnlistener.h"
#include "vorlan/firmware/burnitem.h"

class BurnPageBase;

// Takes no lock. The ids change under the page's lock only. What belongs to a burn (agent, serial
// number, the reports) is used by the session's worker while that lives, and by the page on the
// thread that removes the session after it.
class BurnAvatar final : public BurnListener {
  public:
    // Neither is owned; both outlive the slot.
    BurnAvatar(DeviceDisplay& display, BurnPageBase& page) : display_(display), page_(page) {}
    BurnAvatar(const BurnAvatar&) = delete;
    BurnAvatar& operator=(const BurnAvatar&) = delete;

    // The device's id, and with it the port's, which stays with the slot for good.
    void setDeviceId(const std::wstring& deviceId);
    std::wstring getDeviceId() const { return deviceId_; }
    // Empty in a slot that no port has claimed.
    std::wstring getPlugId() const { return plugId_; }

    // Whether a device is plugged in at the slot's port.
    bool isConnected() const { return connected_; }
    void setConnected(bool connected);

    // The present device's burn; null while none has begun.
    BurnAgent* getAgent() const { return agent_.get(); }
    void setAgent(std::unique_ptr<BurnAgent> agent) { agent_ = std::move(agent); }

    DeviceDisplay& getDisplay() const { return display_; }

    // Burns the items and the next serial number into the device, if a list of numbers is loaded,
    // and returns when the burn has ended. Does nothing for a device that has had its burn: that
    // ends with its removal.
    void startBurn(std::vector<BurnItem> items);

    // The device's burn has ended without success.
    void recordFailure(const std::string& reason) const;

    // Gives the serial number back, unless it is burned or that has been done.
    void releaseSn();

    void onBurnStart(BurnAgent* agent) override;
    void onBurnProgress(BurnAgent* agent, const std::string& name, unsigned percent) override;
    void onItemProgress(BurnAgent* agent, const BurnItem* item, unsigned percent) override;
    void onBurnDone(BurnAgent* agent) override;
    void onBurnError(BurnAgent* agent, int code, const std::string& message) override;

  private:
    void showProgress(const std::wstring& name, unsigned percent);
    // What the run log is told of a burn that has not succeeded.
    std::string whatWentWrong() const;
    BurnEnd burnEnd() const;

    DeviceDisplay& display_;
    BurnPageBase& page_;
    bool connected_ = false;
    std::chrono::steady_clock::time_point pluggedAt_;
    std::wstring deviceId_;
    std::wstring plugId_;
    std::unique_ptr<BurnAgent> agent_;
    SnReservation sn_;   // for the present burn
    std::string error_;  // of the present burn, if its agent has reported one
    std::string step_;   // how far the present burn has come
};
