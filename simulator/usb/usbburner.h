// The burner image that runs on a virtual USB device: takes command records and image data, writes
// the flash, and checks all that the host sends. Used by VirtualUsbDevice, under its lock.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/usb/answerqueue.h"
#include "simulator/usb/usbturn.h"
#include "simulator/usb/usbwire.h"

namespace simulator {

struct UsbDeviceOptions;

class UsbBurner {
  public:
    struct Response {
        std::uint8_t code;
        std::uint8_t cmdorg;
        Clock::duration delay{};
        const char* description = "";  // with kError
    };

    UsbBurner(ErrorList& errors, Flash& flash, const UsbDeviceOptions& options)
        : errors_(&errors), flash_(&flash), options_(&options) {}

    void powerOn();

    // Checks a record of 16 bytes and returns the response to it; it is carried out if told to.
    Response takeCommand(Bytes record, const UsbTurn& turn);
    // The same for a transfer of image data; nothing answers what comes outside the data phase.
    std::optional<Response> takeChunk(Bytes chunk, const UsbTurn& turn);
    // The running command has ended with an error.
    void fail();

    bool takesData() const { return state_ == State::kTakingData; }

  private:
    enum class State { kIdle, kTakingData, kRunning, kFinished, kFailed };

    struct Command {
        std::uint8_t code = 0;
        std::uint32_t flags = 0;
        std::uint32_t address = 0;
        std::uint32_t size = 0;
    };

    bool isClean(Bytes record, const Command& command);
    Response getResult(const UsbTurn& turn);
    Response setCrc(Bytes record, const UsbTurn& turn);
    Response begin(Bytes record, const Command& command, const UsbTurn& turn);
    // Ends the running command: its outcome is what GET_RESULT tells.
    Response finish();
    bool dataIsGood();
    Response breach(const char* text, std::uint8_t cmdorg);
    void note(const std::string& text);

    ErrorList* errors_;
    Flash* flash_;
    const UsbDeviceOptions* options_;

    State state_ = State::kIdle;
    std::array<std::uint8_t, kRecordSize> lastRecord_{};  // of the running command
    Command running_;
    std::uint32_t received_ = 0;
    std::uint64_t receivedCrc_ = 0;
    bool corrupted_ = false;
    Clock::time_point resultAt_;
    std::optional<std::uint64_t> crc_;  // set for the next command
    std::uint64_t runningCrc_ = 0;      // that it took over
    Response outcome_{};
};

}  // namespace simulator
