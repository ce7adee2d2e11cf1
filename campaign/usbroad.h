// Sixteen USB sockets on a virtual bus.
#pragma once

#include <array>

#include "campaign/road.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"

namespace campaign {

// Must be made before the window and outlive it.
class UsbRoad final : public Road {
  public:
    QString page() const override { return QStringLiteral("USB烧录"); }
    std::string unpackDirectory() const override { return "temp_image"; }
    std::string place(std::size_t socket) const override;
    void makeDevice(std::size_t socket, Dice& dice, bool troubled) override;
    void plug(std::size_t socket) override;
    void unplug(std::size_t socket) override;
    bool isPlugged(std::size_t socket) const override;
    std::shared_ptr<const simulator::Flash> flash(std::size_t socket) const override;
    std::vector<std::string> breaches(std::size_t socket) const override;
    std::vector<std::string> breaches() const override;

  private:
    static std::string port(std::size_t socket);

    simulator::VirtualUsbBus bus_;
    std::array<std::shared_ptr<simulator::VirtualUsbDevice>, kSockets> devices_;
};

}  // namespace campaign
