// Sixteen serial ports with virtual devices.
#pragma once

#include <array>
#include <filesystem>

#include "campaign/road.h"
#include "simulator/serial/virtualserialdevice.h"
#include "simulator/serial/virtualserialports.h"

namespace campaign {

// Must be made before the window and outlive it.
class SerialRoad final : public Road {
  public:
    // The ports lie in that directory, which exists.
    explicit SerialRoad(std::filesystem::path directory) : directory_(std::move(directory)) {}

    QString page() const override { return QStringLiteral("串口烧录"); }
    std::string unpackDirectory() const override { return "uart_temp_image"; }
    std::string place(std::size_t socket) const override;
    void makeDevice(std::size_t socket, Dice& dice, bool troubled) override;
    void plug(std::size_t socket) override;
    void unplug(std::size_t socket) override;
    bool isPlugged(std::size_t socket) const override;
    std::shared_ptr<const simulator::Flash> flash(std::size_t socket) const override;
    std::vector<std::string> breaches(std::size_t socket) const override;

  private:
    const std::filesystem::path directory_;
    simulator::VirtualSerialPorts ports_;
    std::array<std::shared_ptr<simulator::VirtualSerialDevice>, kSockets> devices_;
};

}  // namespace campaign
