// The ROM loader of a virtual USB device: takes the burner image in MEM_BEGIN, MEM_DATA and
// MEM_END, and checks every byte of these messages. Used by VirtualUsbDevice, under its lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/errorlist.h"
#include "simulator/usb/usbturn.h"
#include "simulator/usb/usbwire.h"

namespace simulator {

class UsbRomLoader {
  public:
    explicit UsbRomLoader(ErrorList& errors) : errors_(&errors) {}

    void powerOn();
    // A host has opened the device anew, so it may begin the download anew.
    void opened() { fresh_ = true; }

    // Whether it repeats the last message, byte for byte.
    bool repeats(Bytes message) const;
    // Checks the message and returns the status to answer with; on 0 carries it out, if told to.
    std::uint8_t take(Bytes message, const UsbTurn& turn);
    // A fatal status was sent: nothing may follow.
    void die() { state_ = State::kDead; }

    // The whole image has come and MEM_END too.
    bool ended() const { return state_ == State::kEnded; }
    const std::vector<std::uint8_t>& image() const { return image_; }

  private:
    enum class State { kBegin, kData, kEnded, kDead };

    static constexpr std::uint8_t kBadChecksum = 0x01;
    static constexpr std::uint8_t kBadMessage = 0xFE;

    std::uint8_t judge(Bytes message);
    bool isWellFormed(Bytes message, std::size_t size, const char* name);
    std::uint8_t judgeBegin(Bytes message);
    std::uint8_t judgeData(Bytes message);
    std::uint8_t judgeEnd(Bytes message);
    void carryOut(Bytes message);
    // Records a breach; returns the status for it.
    std::uint8_t breach(const std::string& text);
    bool expect(bool condition, const std::string& text);

    ErrorList* errors_;
    State state_ = State::kBegin;
    bool fresh_ = false;
    std::uint32_t totalSize_ = 0;
    std::uint32_t nextBlock_ = 0;
    std::vector<std::uint8_t> image_;
    std::vector<std::uint8_t> last_;
    bool lastCarriedOut_ = false;
};

}  // namespace simulator
