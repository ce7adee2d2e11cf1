// The page on which an operator burns devices over USB: choice of firmware and serial numbers,
// start and stop, and sixteen tiles. A slot belongs to a USB port: the first device seen there
// claims the next free slot, and every later one comes up on the same tile with the same label.
#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "burnavatar.h"
#include "storage/usbtagmap.h"
#include "ui/customstatic.h"
#include "ui/devicedisplay.h"
#include "ui/page.h"
#include "ui/refresher.h"
#include "vorlan/burn/usblistener.h"
#include "vorlan/firmware/firmwaremanager.h"

// The operations of UsbListener run on the threads that it names, refreshBurnCount on any; all
// others on the user-interface thread. No other thread ever waits for that one.
class CBurnPage final : public Page, public UsbListener {
  public:
    static constexpr int kSlots = 16;

    // Loads the labels of earlier runs.
    CBurnPage();
    // Not while burning.
    ~CBurnPage() override;

    bool isBurning() const { return burning_; }

    // Starts burning, or stops it: then every device that is still burning is cut off and its
    // number is free again.
    void toggleBurn();

    // Writes the ports' labels to "tag_map".
    void saveTags();

    // Shows the count of burned devices.
    void refreshBurnCount();

    void OnInitDialog() override;
    bool OnSetActive() override;
    bool OnKillActive() override;

    void onPlug(SesHandle session) override;
    void onBurnerReady(SesHandle session) override;
    void onRemove(SesHandle session) override;
    void onError(SesHandle session, std::uint32_t code, const std::string& message) override;

  private:
    // What lies in the middle of the page: tile area and hint take turns.
    enum class Centre { kNothing, kHint, kTiles };

    void makeControls();
    void layoutTiles();
    void chooseFirmware();
    void importSn();
    void startBurn();
    void stopBurn();
    bool checkUsbDriver();
    void updateStartButton();
    void updateHint();
    void refresh();

    std::wstring portOf(const BurnAvatar& slot);
    BurnAvatar* claimSlot(const std::wstring& deviceId);
    BurnAvatar* findAvatar(const std::wstring& deviceId);
    void deviceRemoved(const std::wstring& deviceId);
    // For any thread: a box for the operator, whom nobody waits for.
    void showLater(const char* notice);
    void showNotice();

    int nextControlId_ = 10000;
    QLineEdit* firmwareBox_ = nullptr;
    QPushButton* chooseButton_ = nullptr;
    QPushButton* startButton_ = nullptr;
    QLineEdit* snPathBox_ = nullptr;
    QLineEdit* snAddressBox_ = nullptr;
    QLineEdit* burnCountBox_ = nullptr;
    QLabel* hint_ = nullptr;
    CCustomStatic* tileArea_ = nullptr;

    FirmwareManager firmware_;
    bool burning_ = false;
    Refresher refresher_;
    std::array<std::unique_ptr<DeviceDisplay>, kSlots> displays_;  // made by layoutTiles
    std::array<BurnAvatar, kSlots> slots_;
    std::mutex pageLock_;  // guards the slots' ids and the removal of their devices
    UsbTagMap tagMap_;
    // Guards plugged_, and keeps saveTags from missing a label that is on its way from the map to
    // the tile of a device that arrives. Taken before pageLock_.
    std::mutex labelLock_;
    bool plugged_ = false;  // a device has been seen in this run
    std::atomic<Centre> centre_{Centre::kNothing};
    std::atomic<const char*> notice_{nullptr};
    bool noticeOpen_ = false;
};
