// A serial port of the floor, with its adapter.
#pragma once

#include <filesystem>

#include "demo/floor/socket.h"
#include "simulator/serial/virtualserialdevice.h"
#include "simulator/serial/virtualserialports.h"

namespace simulator {

class SerialSocket final : public Socket {
  public:
    // Sockets count from 0, as ports do. The ports outlive it; `port` is in a directory that is
    // there.
    SerialSocket(VirtualSerialPorts& ports, const std::filesystem::path& directory, int number);

    QString name() const override;
    QStringList troubles() const override;
    void plug(int trouble, Pace pace) override;
    void unplug() override;
    bool isPlugged() const override;
    std::shared_ptr<const Flash> flash() const override;

  private:
    VirtualSerialPorts& ports_;
    const std::filesystem::path port_;
    std::shared_ptr<VirtualSerialDevice> device_;
    bool present_ = false;  // as the list of ports has been told
};

}  // namespace simulator
