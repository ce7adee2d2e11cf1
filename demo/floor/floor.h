// The floor: a small window beside the program's with sixteen USB sockets and sixteen serial ports,
// at which a trainer plugs devices in and out by click, sound ones and others.
#pragma once

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "demo/floor/socket.h"
#include "simulator/samplepackage.h"
#include "simulator/serial/virtualserialports.h"
#include "simulator/usb/virtualusbbus.h"

namespace simulator {

// What the floor's own package and numbers put into a device, so that it can tell what one holds.
struct FloorGoods {
    SamplePackage package;
    std::vector<std::string> numbers;
};

// Made before the program's window; outlives it. All on the user-interface thread.
class Floor final : public QWidget {
  public:
    // The serial ports lie in a new directory of that path.
    Floor(FloorGoods goods, const std::filesystem::path& ports);

  private:
    // A row of the window: a socket and its controls.
    struct Place {
        std::unique_ptr<Socket> socket;
        QPushButton* plug = nullptr;
        QComboBox* trouble = nullptr;
        QLabel* holds = nullptr;
        bool plugged = false;  // as the button shows it
    };

    QWidget* makeRoad(std::size_t first);
    void press(Place& place);
    void setAll(std::size_t first, bool plugged);
    void plug(Place& place);
    void refresh();
    QString contentOf(const Flash& flash) const;

    static constexpr std::size_t kSockets = 16;  // of each road

    const FloorGoods goods_;
    VirtualUsbBus bus_;
    VirtualSerialPorts ports_;
    std::vector<Place> places_;  // USB, then serial
    QComboBox* pace_ = nullptr;
    QTimer timer_;
};

}  // namespace simulator
