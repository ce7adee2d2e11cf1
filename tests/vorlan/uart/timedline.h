// A port with a flash proxy at its end, on a clock of its own: bytes take their time on the line,
// the host's waits last exactly as long as they may, and nothing else takes any.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/serialdevice.h"
#include "simulator/bytes.h"
#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/serial/serialflashproxy.h"
#include "simulator/serial/slipreader.h"

class TimedLine final : public platform::SerialDevice {
  public:
    using Time = std::chrono::nanoseconds;
    static constexpr std::uint32_t kRate = 3'000'000;  // bit/s

    // How the answer to a block is sent, which is ready at that time.
    using Say = std::function<void(TimedLine& line, const std::string& answer, Time ready)>;
    Say sayAnswer = [](TimedLine& line, const std::string& answer, Time ready) {
        line.say(answer, ready);
    };
    // A frame that begins sooner behind the end of a block is lost.
    Time pauseBehindBlock{};

    TimedLine() { proxy_.start(true); }

    // Puts the bytes on the line to the host, not before that time. When the last has passed.
    Time say(const std::string& bytes, Time from);

    Time now() const { return now_; }
    // Every request that has come, as it came.
    const std::vector<std::vector<std::uint8_t>>& requests() const { return requests_; }
    std::vector<std::string> errors() const { return errors_.texts(); }
    const simulator::Flash& flash() const { return flash_; }

    const std::string& path() const override { return path_; }
    bool fetchSettings() override { return true; }
    bool setLine(const platform::SerialLine&) override { return true; }
    std::uint32_t offeredRate() const override { return kRate; }
    bool setTimeouts(const platform::SerialTimeouts& timeouts) override;
    int readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) override;
    void finishRead() override;
    int write(const std::uint8_t* bytes, int size) override;

  private:
    // A read under way, or what is left of it.
    struct Read {
        int wanted = 0;
        Time end{};
        Time total{};
    };

    bool takeByte(Read& read, std::uint8_t& byte);
    void arrived(Time at);
    simulator::SerialAnswer answerTo(const simulator::SerialRequest& request);

    const std::string path_ = "timed";
    platform::SerialTimeouts timeouts_;
    Time now_{};
    Read rest_;

    Time hostLineFree_{};  // when all that was written has passed
    Time frameBegan_{};
    Time deafUntil_{};
    simulator::SlipReader reader_;
    std::vector<std::vector<std::uint8_t>> requests_;

    Time deviceLineFree_{};
    std::multimap<Time, std::uint8_t> arrivals_;  // at the host

    simulator::ErrorList errors_;
    simulator::Flash flash_;
    simulator::SerialFlashProxy proxy_{errors_, flash_, true};
    std::vector<std::uint8_t> last_;
    simulator::SerialAnswer lastAnswer_{simulator::Refusal::kBadOrder, {}};
};
