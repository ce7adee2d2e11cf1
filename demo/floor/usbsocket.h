// A place on the floor's USB hub.
#pragma once

#include <string>

#include "demo/floor/socket.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"

namespace simulator {

class UsbSocket final : public Socket {
  public:
    // Sockets count from 1. The bus outlives it.
    UsbSocket(VirtualUsbBus& bus, int number);

    QString name() const override;
    QStringList troubles() const override;
    void plug(int trouble, Pace pace) override;
    void unplug() override;
    bool isPlugged() const override;
    std::shared_ptr<const Flash> flash() const override;

  private:
    VirtualUsbBus& bus_;
    const std::string port_;
    std::shared_ptr<VirtualUsbDevice> device_;
};

}  // namespace simulator
