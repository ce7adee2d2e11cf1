// A virtual chip behind a fake device's endpoints.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "simulator/kernelusb/mockusbdevice.h"
#include "simulator/usb/virtualusbdevice.h"
#include "vorlan/burn/usb_protocol.h"

class WiredDevice {
  public:
    // It takes so many writes and is mute from then on.
    explicit WiredDevice(int writes = std::numeric_limits<int>::max(),
                         simulator::UsbDeviceOptions options = {})
        : chip(options), writesLeft_(writes) {}

    // To be called before the host can see the wire.
    void connect(MockUsbDevice& wire) {
        chip.powerOn();
        chip.opened();
        wire.setReceiver([this, &wire](std::uint8_t endpoint, const Bytes& bytes) {
            if (--writesLeft_ < 0)
                return;
            chip.hostWrites(endpoint, bytes);
            for (const std::uint8_t in : {EP_ADDR_CMD_RESP_IN, EP_ADDR_DATA_RESP_IN}) {
                while (const std::size_t waiting = chip.unreadBytes(in)) {
                    Bytes answer(waiting);
                    chip.hostReads(in, answer, 0);
                    wire.send(in, answer);
                }
            }
        });
    }

    bool isMute() const { return writesLeft_ < 0; }

    simulator::VirtualUsbDevice chip;

  private:
    std::atomic<int> writesLeft_;
};
