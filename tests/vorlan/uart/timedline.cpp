#include "timedline.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

constexpr TimedLine::Time kByteTime{10 * 1'000'000'000LL / TimedLine::kRate};

}  // namespace

TimedLine::Time TimedLine::say(const std::string& bytes, Time from) {
    deviceLineFree_ = std::max(deviceLineFree_, from);
    for (const char byte : bytes)
        arrivals_.emplace(deviceLineFree_ += kByteTime, static_cast<std::uint8_t>(byte));
    return deviceLineFree_;
}

bool TimedLine::setTimeouts(const platform::SerialTimeouts& timeouts) {
    timeouts_ = timeouts;
    return true;
}

// False when the read's time is over.
bool TimedLine::takeByte(Read& read, std::uint8_t& byte) {
    if (arrivals_.empty() || arrivals_.begin()->first > read.end) {
        now_ = std::max(now_, read.end);
        return false;
    }
    now_ = std::max(now_, arrivals_.begin()->first);
    byte = arrivals_.begin()->second;
    arrivals_.erase(arrivals_.begin());
    --read.wanted;
    read.end = std::min(read.total, now_ + timeouts_.readGap);
    return true;
}

int TimedLine::readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) {
    const Time total = now_ + timeouts_.readConstant + wanted * timeouts_.readPerByte;
    Read read{wanted, total, total};
    rest_ = {};
    int count = 0;
    while (read.wanted > 0 && takeByte(read, buffer[count])) {
        ++count;
        if (isWhole(buffer, count)) {
            rest_ = read;
            break;
        }
    }
    return count;
}

void TimedLine::finishRead() {
    std::uint8_t dropped = 0;
    for (Read rest = std::exchange(rest_, {}); rest.wanted > 0;)
        if (!takeByte(rest, dropped))
            return;
}

// The port's buffer takes everything at once.
int TimedLine::write(const std::uint8_t* bytes, int size) {
    hostLineFree_ = std::max(hostLineFree_, now_);
    for (int i = 0; i < size; ++i) {
        if (!reader_.inFrame())
            frameBegan_ = hostLineFree_;
        hostLineFree_ += kByteTime;
        if (reader_.take(bytes[i]) == simulator::SlipReader::Event::kFrame)
            arrived(hostLineFree_);
    }
    return size;
}

void TimedLine::arrived(Time at) {
    requests_.push_back(reader_.frame());
    if (frameBegan_ < deafUntil_)
        return;
    simulator::Refusal refusal = simulator::Refusal::kNone;
    const std::optional<simulator::SerialRequest> request =
        simulator::parseRequest(requests_.back(), errors_, refusal);
    if (!request)
        return;
    const std::vector<std::uint8_t> frame =
        simulator::slipFrame(simulator::answerPacket(request->command, answerTo(*request)));
    const std::string answer(frame.begin(), frame.end());
    if (request->command == simulator::kUartFlashData) {
        sayAnswer(*this, answer, at);
        deafUntil_ = at + pauseBehindBlock;
    } else {
        say(answer, at);
    }
}

// A request that comes again is answered again.
simulator::SerialAnswer TimedLine::answerTo(const simulator::SerialRequest& request) {
    const std::vector<std::uint8_t>& frame = requests_.back();
    if (!simulator::sameRequest(frame, last_) || lastAnswer_.refusal != simulator::Refusal::kNone)
        lastAnswer_ = proxy_.take(request, {}, kRate);
    last_ = frame;
    return lastAnswer_;
}
