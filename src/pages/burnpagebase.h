// What the two burn pages have in common: the choice of firmware and serial numbers, the start
// button, the burn count, and sixteen tiles that take turns with a hint in the middle of the page.
#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "storage/productionrecord.h"
#include "storage/serialnumfile.h"
#include "ui/customstatic.h"
#include "ui/devicedisplay.h"
#include "ui/dialogtemplate.h"
#include "ui/page.h"
#include "ui/refresher.h"
#include "vorlan/firmware/firmwaremanager.h"

// All on the user-interface thread, unless said otherwise. No other thread ever waits for that one.
class BurnPageBase : public Page {
  public:
    static constexpr std::size_t kSlots = 16;

    bool isBurning() const { return burning_; }

    // While one lives, a burn of the page is running. Any thread; waits for nothing.
    class RunningBurn {
      public:
        explicit RunningBurn(BurnPageBase& page);
        ~RunningBurn();
        RunningBurn(const RunningBurn&) = delete;
        RunningBurn& operator=(const RunningBurn&) = delete;

      private:
        BurnPageBase& page_;
    };
    // Of all pages.
    static int runningBurns() { return runningBurns_; }

    // Starts burning, or stops it.
    void toggleBurn();

    // Shows the count of burned devices. Any thread.
    void refreshBurnCount();

    // What the next devices are burned from. While the page is not burning the operator may choose
    // another one.
    PackageIdentity package() const;

    // Adds a row to the record of production and a line to the run log. A record that cannot be
    // written stops nothing, and the operator is told. Any thread; waits for the disk.
    void recordBurn(const BurnEnd& end);

    // Tells the operator what no tile shows, in a box that nobody waits for: once for each cause as
    // long as the program runs. Any thread.
    void tellOnce(const QString& cause, const QString& text);

    // Tells the operator of numbers that are in devices but not marked in their file, as
    // SerialNumFile::markBurned gives them. Any thread.
    void tellUnmarked(const std::vector<SerialNumFile::Unmarked>& numbers);

    // Puts what is stored about serial numbers into the boxes. Once the page has been at the front,
    // and not while it is burning.
    void showStoredSettings();

    void OnInitDialog() override;
    bool OnKillActive() override;
    void OnLeft() override;

  protected:
    // Where the templates of the pages differ. Rectangles are in dialog units.
    struct Layout {
        QString caption;
        QRect snPathLabel;
        QRect snPathBox;
        QRect importButton;
        QRect snAddressLabel;
        QRect burnCountBox;
        QRect tileArea;
        QString hint;  // until the first start
        int firstTileId;
        const wchar_t* tileName;  // the tile's number follows
        const wchar_t* unpackDirectory;
    };

    explicit BurnPageBase(Layout layout);

    virtual void startBurn() = 0;
    virtual void stopBurn() = 0;
    // The start button was pressed.
    virtual void onStartButton() { toggleBurn(); }
    // Makes the controls that only one page has.
    virtual void addControls(const DialogTemplate& /*controls*/) {}
    // Makes the next slot, with its tile. Both live as long as the page.
    virtual void addSlot(DeviceDisplay& tile) = 0;

    // Stores the flash address that the box holds. False, and the operator knows why, if it is
    // none.
    bool storeAddress();
    // Greys out what must not be changed during a run, or frees it.
    void lockChoices(bool locked);
    void setBurning(bool burning);

    // Hint and tile area take turns; neither is there before the first of these. Any thread.
    void showTiles();
    void showHintInsteadOfTiles();
    void showHintUnlessTiles();

    // A box for the operator, whom nobody waits for: it opens once those before it are closed. A
    // text that still waits for its turn is not shown twice. Any thread.
    void showLater(const QString& text, const QString& caption = {});

    // Brings all that has changed to the screen at once.
    void refresh();

    DeviceDisplay* tile(std::size_t number) const { return tiles_[number].get(); }
    const FirmwareManager& firmware() const { return firmware_; }

  private:
    static inline std::atomic<int> runningBurns_{0};

    enum class Centre { kNothing, kHint, kTiles };

    struct Notice {
        QString text;
        QString caption;
    };

    void makeControls();
    void layoutTiles();
    void chooseFirmware();
    void showNoFirmware();
    void importSn();
    void showSnList();
    void showNotices();
    std::optional<Notice> takeNotice();

    const Layout layout_;
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
    std::array<std::unique_ptr<DeviceDisplay>, kSlots> tiles_;  // made by layoutTiles
    std::atomic<Centre> centre_{Centre::kNothing};
    std::mutex noticeLock_;         // guards the two
    std::deque<Notice> notices_;    // not shown yet, in the order of their boxes
    std::set<QString> toldCauses_;  // of tellOnce
    bool noticeOpen_ = false;
};
