// Stands in for the operator's window in the demo: takes what BurnAdmin and the agents report,
// burns each device with the next free serial number, and keeps what a tile would show.
#pragma once

#include <array>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "storage/serialnumfile.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/usblistener.h"
#include "vorlan/firmware/firmwaremanager.h"

namespace simulator {

class ConsoleBurner final : public UsbListener {
  public:
    static constexpr std::size_t kSlots = 16;

    enum class Phase { kFree, kPlugged, kBurning, kDone, kFailed, kRemoved };

    // What the tile of one port shows.
    struct Tile {
        std::string deviceId;  // the port's, from its first device on
        Phase phase = Phase::kFree;
        unsigned percent = 0;
        std::string status;
    };

    explicit ConsoleBurner(const FirmwareManager& firmware) : firmware_(firmware) {}

    void onPlug(SesHandle session) override;
    void onBurnerReady(SesHandle session) override;
    void onRemove(SesHandle session) override;
    void onError(SesHandle session, std::uint32_t code, const std::string& message) override;

    std::array<Tile, kSlots> tiles() const;

    // Waits on the calling thread until the tiles satisfy the condition; `whileWaiting` is called
    // with every change. False after `limit`.
    using Tiles = std::array<Tile, kSlots>;
    bool waitFor(const std::function<bool(const Tiles&)>& condition, std::chrono::seconds limit,
                 const std::function<void(const Tiles&)>& whileWaiting) const;

  private:
    // One port: its device's burn, from plug-in to removal. Its operations run on the worker.
    class Slot final : public BurnListener {
      public:
        void burn(ConsoleBurner& owner, std::size_t index, const std::string& deviceId);
        void removed();

        void onBurnStart(BurnAgent* agent) override;
        void onBurnProgress(BurnAgent* agent, const std::string& name, unsigned percent) override;
        void onItemProgress(BurnAgent* agent, const BurnItem* item, unsigned percent) override;
        void onBurnDone(BurnAgent* agent) override;
        void onBurnError(BurnAgent* agent, int code, const std::string& message) override;

      private:
        void releaseSn();

        ConsoleBurner* owner_ = nullptr;
        std::size_t index_ = 0;
        std::unique_ptr<BurnAgent> agent_;
        SerialNumFile::SnRecord* record_ = nullptr;
    };

    // Index of the port's slot, which its first device claims; kSlots if all belong to others.
    std::size_t findSlot(const std::string& deviceId);
    void show(std::size_t index, Phase phase, unsigned percent, const std::string& status);

    const FirmwareManager& firmware_;
    std::array<Slot, kSlots> slots_;
    mutable std::mutex lock_;  // guards the tiles
    mutable std::condition_variable changed_;
    Tiles tiles_;
};

}  // namespace simulator
