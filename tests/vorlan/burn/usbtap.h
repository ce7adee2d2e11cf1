// Listens in on what the USB engine asks of libusbK: which transfers it starts and when, how long
// it is ready to wait for them, and which pipes it empties.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usb_protocol.h"

// Made when the bus exists and nothing is bound; the engine uses it from one thread at a time.
class UsbTap {
  public:
    using Clock = std::chrono::steady_clock;

    // What a transfer is for: the code of a command to the burner image, or this and the endpoint;
    // and the emptying of a pipe.
    static constexpr int kEndpoint = 0x100;
    static constexpr int kFlush = 0x200;
    static constexpr int kChunk = kEndpoint + EP_ADDR_DATA_RESP_OUT;
    static constexpr int kChunkAnswer = kEndpoint + EP_ADDR_DATA_RESP_IN;

    UsbTap() {
        tap = this;
        {
            const LibusbkBinding binding;
            below_ = libusbkTable();
        }
        table_ = below_;
        table_.HotK_Init = initMonitor;
        table_.UsbK_Free = free;
        table_.UsbK_ReadPipe = readPipe;
        table_.UsbK_WritePipe = writePipe;
        table_.OvlK_WaitOrCancel = waitOrCancel;
        table_.UsbK_FlushPipe = flushPipe;
        substituteLibusbk(&table_);
    }
    ~UsbTap() { substituteLibusbk(nullptr); }
    UsbTap(const UsbTap&) = delete;
    UsbTap& operator=(const UsbTap&) = delete;

    void clear() {
        starts_.clear();
        waits.clear();
        flushes.clear();
    }

    // The shortest time from a `from` to the first `to` after it; the longest there is if none.
    Clock::duration shortest(int from, int to) const {
        Clock::duration result = Clock::duration::max();
        for (auto it = starts_.begin(); it != starts_.end(); ++it) {
            if (it->first != from)
                continue;
            const auto next = std::find_if(std::next(it), starts_.end(), is(to));
            if (next != starts_.end())
                result = std::min(result, next->second - it->second);
        }
        return result;
    }

    // When the first and the last one started.
    Clock::time_point first(int what) const {
        return std::find_if(starts_.begin(), starts_.end(), is(what))->second;
    }
    Clock::time_point last(int what) const {
        return std::find_if(starts_.rbegin(), starts_.rend(), is(what))->second;
    }

    // Runs behind each start of a read.
    std::function<void()> afterRead = [] {};

    Clock::time_point freed;                      // when the last handle was
    std::vector<std::pair<int, unsigned>> waits;  // endpoints and limits in ms
    std::vector<int> flushes;                     // endpoints

  private:
    // Monitors are told of every device, whatever they ask for.
    static bool initMonitor(libusbk::Monitor** monitor,
                            const libusbk::MonitorParameters* parameters) {
        libusbk::MonitorParameters everything = *parameters;
        everything.pattern = {};
        return tap->below_.HotK_Init(monitor, &everything);
    }

    static bool readPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint, std::uint8_t* buffer,
                         std::uint32_t length, std::uint32_t* transferred,
                         libusbk::OverlappedSlot* slot) {
        tap->begin(endpoint, kEndpoint + endpoint, slot);
        const bool done =
            tap->below_.UsbK_ReadPipe(handle, endpoint, buffer, length, transferred, slot);
        tap->afterRead();
        return done;
    }

    static bool writePipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                          const std::uint8_t* buffer, std::uint32_t length,
                          std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
        const bool isCommand = endpoint == EP_ADDR_CMD_RESP_OUT;
        tap->begin(endpoint, isCommand ? commandCodeOf(buffer) : kEndpoint + endpoint, slot);
        return tap->below_.UsbK_WritePipe(handle, endpoint, buffer, length, transferred, slot);
    }

    static bool waitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                             std::uint32_t* transferred) {
        tap->waits.emplace_back(tap->endpoints_[slot], timeoutMs);
        return tap->below_.OvlK_WaitOrCancel(slot, timeoutMs, transferred);
    }

    static bool flushPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint) {
        tap->flushes.push_back(endpoint);
        tap->starts_.emplace_back(kFlush + endpoint, Clock::now());
        return tap->below_.UsbK_FlushPipe(handle, endpoint);
    }

    static bool free(libusbk::UsbHandle* handle) {
        tap->freed = Clock::now();
        return tap->below_.UsbK_Free(handle);
    }

    using Start = std::pair<int, Clock::time_point>;

    static std::function<bool(const Start&)> is(int what) {
        return [what](const Start& start) { return start.first == what; };
    }

    void begin(int endpoint, int what, libusbk::OverlappedSlot* slot) {
        endpoints_[slot] = endpoint;
        starts_.emplace_back(what, Clock::now());
    }

    static inline UsbTap* tap = nullptr;

    LibusbkTable below_{};
    LibusbkTable table_{};
    std::map<const libusbk::OverlappedSlot*, int> endpoints_;
    std::vector<Start> starts_;
};
