// The page on which an operator burns devices over USB: choice of firmware and serial numbers,
// start and stop, and sixteen tiles. A slot belongs to a USB port: the first device seen there
// claims the next free slot, and every later one comes up on the same tile with the same label.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "pages/burnpagebase.h"
#include "pages/usb/burnavatar.h"
#include "storage/usbtagmap.h"
#include "vorlan/burn/usblistener.h"

// The operations of UsbListener run on the threads that it names, refreshBurnCount on any; all
// others on the user-interface thread.
class CBurnPage final : public BurnPageBase, public UsbListener {
  public:
    // Loads the labels of earlier runs.
    CBurnPage();
    // Ends a burn that is still running.
    ~CBurnPage() override;

    // Writes the ports' labels to "tag_map", or tells the operator that they cannot be saved.
    void saveTags();

    bool OnSetActive() override;

    void onPlug(SesHandle session) override;
    void onBurnerReady(SesHandle session) override;
    void onRemove(SesHandle session) override;
    void onError(SesHandle session, std::uint32_t code, const std::string& message) override;
    void onBurnerMissing(SesHandle session, const std::string& reason) override;

  private:
    void startBurn() override;
    // Every device that is still burning is cut off and its number is free again.
    void stopBurn() override;
    void addControls(const DialogTemplate& controls) override;
    void addSlot(DeviceDisplay& tile) override;
    bool checkUsbDriver();
    // Tells the operator of a burner image that cannot be opened.
    void tellUnlessThere(const std::wstring& burner);

    std::wstring portOf(const BurnAvatar& slot);
    BurnAvatar* claimSlot(const std::wstring& deviceId);
    BurnAvatar* findAvatar(const std::wstring& deviceId);
    void deviceRemoved(const std::wstring& deviceId);
    void recordFailure(SesHandle session, const std::string& reason);

    std::deque<BurnAvatar> slots_;
    std::mutex pageLock_;  // guards the slots' ids and the removal of their devices
    UsbTagMap tagMap_;
    // Guards plugged_, and keeps saveTags from missing a label that is on its way from the map to
    // the tile of a device that arrives. Taken before pageLock_.
    std::mutex labelLock_;
    bool plugged_ = false;  // a device has been seen in this run
};
