// The tile of one device slot, the operator's whole view of a device: name and label, progress bar,
// and the last thing that happened. It has no logic of its own and shows what it is told.
//
// The operations from setName to setActive may be called from any thread; they change the tile's
// state and request a refresh, and the user-interface thread shows the latest state. Of several
// calls the last wins.
#pragma once

#include <QLineEdit>
#include <QProgressBar>
#include <QRect>
#include <QWidget>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "ui/customstatic.h"
#include "ui/refresher.h"

class DeviceDisplay {
  public:
    // `parent` is the tile area, which gets the controls; `refresher` must outlive the tile, and
    // its refresh must call the tile's.
    DeviceDisplay(QWidget* parent, Refresher& refresher);

    // Makes the controls on the rectangle, in pixels of the tile area; the first gets the control
    // id `firstId`. Returns the next free id.
    int create(const QRect& rectangle, int firstId);

    void setName(const std::wstring& name);
    void setTag(const std::wstring& tag);
    // What the operator has typed, or what was set after that.
    std::wstring getTag() const;
    void setStatus(const std::wstring& status);
    // What was set last.
    std::wstring getStatus() const;
    // The status reads "error=0x%x, des=%s".
    void setError(std::uint32_t code, const std::wstring& text);
    // In percent.
    void setProgress(int percent);
    // Greys the tag box, the bar and the status line out, or not. The name stays as it is.
    void setActive(bool active);
    void showTagBox(bool visible);

    // Shows what has changed. User-interface thread.
    void refresh();

  private:
    // What has been set and is not on the screen yet.
    struct Changes {
        std::optional<std::wstring> name;
        std::optional<std::wstring> tag;
        std::optional<std::wstring> status;
        std::optional<int> progress;
        std::optional<bool> active;
        std::optional<bool> tagBoxVisible;
    };

    template <typename Value>
    void change(std::optional<Value> Changes::*field, const Value& value);
    void typed(const QString& tag);

    QWidget* parent_;
    Refresher& refresher_;
    QLineEdit* titleBox_ = nullptr;
    QLineEdit* tagBox_ = nullptr;
    QProgressBar* bar_ = nullptr;
    CCustomStatic* statusLine_ = nullptr;

    mutable std::mutex lock_;  // guards all below
    Changes changes_;
    std::wstring tag_;
    std::wstring status_;
};
