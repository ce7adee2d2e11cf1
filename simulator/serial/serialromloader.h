// The ROM loader of a virtual serial device: takes the flash proxy in SYNC, RAM_BEGIN, RAM_DATA and
// RAM_END, and checks each of them. Used by VirtualSerialDevice, under its lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulator/errorlist.h"
#include "simulator/serial/serialturn.h"
#include "simulator/serial/serialwire.h"

namespace simulator {

class SerialRomLoader {
  public:
    explicit SerialRomLoader(ErrorList& errors) : errors_(&errors) {}

    void powerOn();
    // A host has opened the port anew: it has to begin with SYNC.
    void opened();

    // Checks a request that is no repeat of one that was carried out, and carries it out if told
    // to.
    Refusal take(const SerialRequest& request, const SerialTurn& turn);

    const std::vector<std::uint8_t>& image() const { return image_; }

  private:
    enum class State { kSync, kBegin, kData, kEnded };

    Refusal sync(const SerialTurn& turn);
    Refusal begin(const SerialRequest& request, const SerialTurn& turn);
    Refusal data(const SerialRequest& request, const SerialTurn& turn);
    Refusal end(const SerialRequest& request, const SerialTurn& turn);
    Refusal breach(const std::string& text);
    Refusal outOfOrder(const std::string& text, const SerialTurn& turn);

    ErrorList* errors_;
    State state_ = State::kSync;
    std::uint32_t total_ = 0;
    std::uint32_t nextBlock_ = 0;
    std::vector<std::uint8_t> image_;
};

}  // namespace simulator
