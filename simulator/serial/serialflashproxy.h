// The flash proxy that runs on a virtual serial device: takes images into the flash and checks each
// request. Used by VirtualSerialDevice, under its lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/serial/serialturn.h"
#include "simulator/serial/serialwire.h"

namespace simulator {

class SerialFlashProxy {
  public:
    // The flash is addressed from 0. `requiresDigest`: FLASH_END without an MD5 before is a breach.
    SerialFlashProxy(ErrorList& errors, Flash& flash, bool requiresDigest)
        : errors_(&errors), flash_(&flash), requiresDigest_(requiresDigest) {}

    // `inSync`: SYNC has been answered already.
    void start(bool inSync);
    // A host has opened the port anew: it has to begin with SYNC.
    void opened() { start(false); }

    // Checks a request that is no repeat of one that was carried out, and carries it out if told
    // to. `rate` is that of the line.
    SerialAnswer take(const SerialRequest& request, const SerialTurn& turn, std::uint32_t rate);
    // The host was told a wrong digest: it has to give the download up.
    void digestWasWrong();

  private:
    enum class State { kSync, kIdle, kDownload };

    struct Download {
        std::uint32_t offset = 0;
        std::uint32_t total = 0;
        std::uint32_t received = 0;
        std::uint32_t nextBlock = 0;
        bool corrupted = false;
        bool hasDigest = false;  // MD5 has been answered
    };

    Refusal sync(const SerialTurn& turn);
    Refusal changeBaudrate(const SerialRequest& request, const SerialTurn& turn,
                           std::uint32_t rate);
    Refusal begin(const SerialRequest& request, const SerialTurn& turn);
    Refusal data(const SerialRequest& request, const SerialTurn& turn);
    SerialAnswer digest(const SerialRequest& request, const SerialTurn& turn);
    Refusal end(const SerialRequest& request, const SerialTurn& turn);
    Digest digestOf(std::uint32_t offset, std::uint32_t size) const;
    Refusal breach(const std::string& text);
    Refusal outOfOrder(const std::string& text, const SerialTurn& turn);

    ErrorList* errors_;
    Flash* flash_;
    bool requiresDigest_;
    State state_ = State::kSync;
    bool mayChangeRate_ = true;  // once, before the first download
    Download download_;
};

}  // namespace simulator
