#include "simulator/serial/virtualserialdevice.h"

#include <algorithm>
#include <utility>

namespace simulator {
namespace {

// The device reads no further ahead of the pace than this, so a host that writes on and on is held
// back as by a port's full buffer.
constexpr std::chrono::milliseconds kReadAhead{50};

// What the machine made the device late with an answer, up to this, is not charged to the line: the
// request that follows counts as begun earlier by that much. So a busy machine does not slow the
// line down, while every single exchange still looks like one.
constexpr std::chrono::milliseconds kMostForgiven{5};

constexpr std::size_t kReadSize = 16384;

// A host ends its read at a gap of this length.
constexpr std::chrono::milliseconds kReadGap{10};

// Frames of the host's decoder and bytes of its read, at most.
constexpr std::size_t kLongestAnswer = 63;
constexpr std::size_t kLongestRead = 64;

constexpr std::uint8_t kFiller = 0xA5;

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

// What bytes of another rate look like: not at all like them.
void garble(std::vector<std::uint8_t>& bytes) {
    std::uint8_t mask = 0x96;
    for (std::uint8_t& byte : bytes) {
        byte ^= mask;
        mask = static_cast<std::uint8_t>(mask * 5 + 1);
    }
}

}  // namespace

VirtualSerialDevice::VirtualSerialDevice(std::filesystem::path port, SerialDeviceOptions options)
    : port_(std::move(port)),
      options_(options),
      rom_(errors_),
      proxy_(errors_, flash_, options_.requiresDigest),
      inPace_(options_.paced),
      outPace_(options_.paced),
      buffer_(kReadSize) {}

VirtualSerialDevice::~VirtualSerialDevice() {
    unplug();
}

void VirtualSerialDevice::plugIn() {
    unplug();
    const std::lock_guard plugGuard(plugLock_);
    if (thread_.joinable())
        return;  // another thread was faster
    line_ = std::make_unique<PtyLine>(port_);
    {
        const std::lock_guard guard(lock_);
        powerOn();
    }
    thread_ = std::thread(&VirtualSerialDevice::run, this);
}

void VirtualSerialDevice::unplug() {
    const std::lock_guard plugGuard(plugLock_);
    if (!thread_.joinable())
        return;
    {
        const std::lock_guard guard(lock_);
        leaving_ = true;
        leavesAt_ = {};
    }
    line_->wake();
    thread_.join();
    line_.reset();
}

void VirtualSerialDevice::run() {
    sharpenTimers();
    for (;;) {
        Clock::time_point next;
        bool forInput = false;
        {
            const Clock::time_point now = Clock::now();
            const std::lock_guard guard(lock_);
            next = step(now);
            if (leaving_ && leavesAt_ <= now)
                break;
            forInput = !leaving_ && inPace_.freeAt() <= now + kReadAhead;
        }
        line_->wait(next, forInput);
    }
    line_->hangUp();
    {
        const std::lock_guard guard(lock_);
        plugged_ = false;
    }
}

Clock::time_point VirtualSerialDevice::step(Clock::time_point now) {
    advance(now);
    receive(now);
    Clock::time_point next = Clock::time_point::max();
    while (!leaving_ || leavesAt_ > now) {
        const bool frameIsDue =
            !incoming_.empty() && std::max(incoming_.front().at, busyUntil_) <= now;
        if (!outgoing_.empty() && outgoing_.front().at <= now) {
            const Outgoing piece = std::move(outgoing_.front());
            outgoing_.pop_front();
            send(piece, now);
        } else if (frameIsDue) {
            const Incoming frame = std::move(incoming_.front());
            incoming_.pop_front();
            serve(frame);
        } else {
            break;
        }
    }
    if (!incoming_.empty())
        next = std::min(next, std::max(incoming_.front().at, busyUntil_));
    if (!outgoing_.empty())
        next = std::min(next, outgoing_.front().at);
    if (leaving_)
        next = std::min(next, leavesAt_);
    if (inPace_.freeAt() > now + kReadAhead)
        next = std::min(next, inPace_.freeAt() - kReadAhead);
    return next;
}

void VirtualSerialDevice::powerOn() {
    rom_.powerOn();
    proxy_.start(options_.start == SerialStart::kProxyInSync);
    const bool startsInRom = options_.start == SerialStart::kRomLoader;
    plugged_ = true;
    leaving_ = false;
    stage_ = startsInRom ? SerialStage::kRomLoader : SerialStage::kProxy;
    quietUntil_ = startsInRom ? Clock::now() + options_.romStartUp : Clock::time_point{};
    rate_ = startsInRom ? kFirstRate : options_.proxyRate;
    traffic_ = 0;
    inPace_ = LinePace(options_.paced);
    outPace_ = LinePace(options_.paced);
    reader_.reset();
    incoming_.clear();
    outgoing_.clear();
    busyUntil_ = {};
    last_.clear();
    markLeft_ = false;
    earlierCommand_ = kUartSync;
    lateness_ = {};
    lastArrival_ = {};
    said_ = true;
    inStep_ = true;
}

void VirtualSerialDevice::advance(Clock::time_point now) {
    if (stage_ == SerialStage::kHandOver && now >= quietUntil_)
        stage_ = SerialStage::kProxy;
}

void VirtualSerialDevice::hostOpens() {
    settingsNoted_ = false;
    strayNoted_ = false;
    if (traffic_ == 0)
        return;
    rom_.opened();
    proxy_.opened();
    reader_.reset();
    incoming_.clear();
    last_.clear();
    markLeft_ = false;
    said_ = true;
    inStep_ = outgoing_.empty();
}

void VirtualSerialDevice::receive(Clock::time_point now) {
    const bool reads = !leaving_ && inPace_.freeAt() <= now + kReadAhead;
    std::size_t size = reads ? line_->read(buffer_) : 0;
    // Behind the read: a host that has opened the port by then may be the one whose bytes these
    // are, and they must not go the way of what the host before it has left.
    if (line_->opened())
        hostOpens();
    if (size == 0)
        return;
    const bool leaves = size >= bytesUntilUnplugged();
    if (leaves)
        size = static_cast<std::size_t>(bytesUntilUnplugged());
    traffic_ += size;
    const std::uint32_t hostRate = line_->rate();
    const Bytes bytes = Bytes(buffer_).first(size);
    if (!settingsNoted_ && !line_->passesBytes()) {
        settingsNoted_ = true;
        errors_.add("the port is not set to pass 8 data bits as they are, with one stop bit");
    }
    const Clock::time_point from = now - std::exchange(lateness_, {});
    if (now >= quietUntil_ && hostRate == rate_) {
        hear(bytes, hostRate, from);
    } else {
        inPace_.carry(size, hostRate, from);
        if (now >= quietUntil_)
            hearAtWrongRate(now);
        reader_.reset();
    }
    if (leaves) {
        leaving_ = true;
        leavesAt_ = std::max(now, inPace_.freeAt());
    }
}

void VirtualSerialDevice::hear(Bytes bytes, std::uint32_t hostRate, Clock::time_point from) {
    std::size_t passed = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const SlipReader::Event event = reader_.take(bytes[i]);
        if (event == SlipReader::Event::kNone)
            continue;
        if (event == SlipReader::Event::kFrame) {
            const Clock::time_point at = inPace_.carry(i + 1 - passed, hostRate, from);
            passed = i + 1;
            arrived({std::move(reader_.frame()), hostRate, at});
        } else {
            note(event);
        }
    }
    inPace_.carry(bytes.size() - passed, hostRate, from);
}

void VirtualSerialDevice::hearAtWrongRate(Clock::time_point now) {
    if (reader_.inFrame())
        errors_.add("the rate was changed inside a frame");
    const SerialFault& fault = faults_.strike(SerialFaultPoint::kWrongRate);
    if (fault.kind != SerialFault::Kind::kRawAnswer)
        return;
    inStep_ = false;
    queue(bytesOf(fault.before), std::max(now, inPace_.freeAt()));
}

void VirtualSerialDevice::note(SlipReader::Event event) {
    if (event == SlipReader::Event::kBadEscape)
        errors_.add("a frame with a bad escape");
    if (event == SlipReader::Event::kTooLong)
        errors_.add("a frame that is too long");
    if (event == SlipReader::Event::kStray && !std::exchange(strayNoted_, true))
        errors_.add("bytes outside a frame");
}

void VirtualSerialDevice::arrived(Incoming frame) {
    strayNoted_ = false;
    if (inStep_ && !said_ && frame.at - lastArrival_ < options_.patience)
        errors_.add("a request before the last one was answered");
    lastArrival_ = frame.at;
    said_ = false;
    incoming_.push_back(std::move(frame));
}

void VirtualSerialDevice::serve(const Incoming& frame) {
    if (options_.paced && line_->rate() != frame.rate) {
        errors_.add("the rate was changed while a request was on the line");
        return;
    }
    const Clock::time_point at = std::max(frame.at, busyUntil_);
    Refusal refusal = Refusal::kNone;
    const std::optional<SerialRequest> request = parseRequest(frame.bytes, errors_, refusal);
    if (!request) {
        last_.clear();
        if (frame.bytes.size() >= kPacketHeaderSize)
            queue(slipFrame(answerPacket(frame.bytes[1], {refusal, {}})), at);
        return;
    }

    const std::optional<SerialFaultPoint> point = pointOf(request->command);
    const SerialFault fault = point ? faults_.strike(*point) : SerialFault();
    if (fault.what)
        fault.what();
    if (!last_.empty() && last_[1] != request->command)
        earlierCommand_ = last_[1];
    const SerialAnswer plain = judge(*request, frame.bytes, fault);
    switch (fault.kind) {
        case SerialFault::Kind::kSwallow:
            break;
        case SerialFault::Kind::kStall:
            quietUntil_ = fault.time == std::chrono::milliseconds::max() ? Clock::time_point::max()
                                                                         : at + fault.time;
            incoming_.clear();
            reader_.reset();
            break;
        case SerialFault::Kind::kUnplug:
            leaving_ = true;
            leavesAt_ = at;
            break;
        default:
            answer(*request, plain, fault, frame.at);
            break;
    }
}

std::optional<SerialFaultPoint> VirtualSerialDevice::pointOf(std::uint8_t command) const {
    const bool inRom = stage_ == SerialStage::kRomLoader;
    const auto only = [&](bool asked, SerialFaultPoint point) {
        return asked ? std::optional(point) : std::nullopt;
    };
    switch (command) {
        case kUartSync:
            return inRom ? SerialFaultPoint::kRomSync : SerialFaultPoint::kProxySync;
        case kUartRamBegin:
            return only(inRom, SerialFaultPoint::kRamBegin);
        case kUartRamData:
            return only(inRom, SerialFaultPoint::kRamData);
        case kUartRamEnd:
            return only(inRom, SerialFaultPoint::kRamEnd);
        case kUartChangeBaudrate:
            return only(!inRom, SerialFaultPoint::kChangeBaudrate);
        case kUartFlashBegin:
            return only(!inRom, SerialFaultPoint::kFlashBegin);
        case kUartFlashData:
            return only(!inRom, SerialFaultPoint::kFlashData);
        case kUartMd5:
            return only(!inRom, SerialFaultPoint::kMd5);
        case kUartFlashEnd:
            return only(!inRom, SerialFaultPoint::kFlashEnd);
        default:
            return std::nullopt;
    }
}

SerialAnswer VirtualSerialDevice::judge(const SerialRequest& request, Bytes frame,
                                        const SerialFault& fault) {
    const bool inRom = stage_ == SerialStage::kRomLoader;
    const bool again = !last_.empty() && sameRequest(frame, last_);
    const bool open = !last_.empty() && !acknowledged_;  // the last request was not done with
    const bool restarts = request.command == (inRom ? kUartSync : kUartFlashBegin);
    if (inStep_ && again && acknowledged_)
        errors_.add(commandName(request.command) + " again, though it was acknowledged");
    if (inStep_ && open && !again && !restarts)
        errors_.add(commandName(request.command) + " before " + commandName(last_[1]) +
                    " was acknowledged");
    if (isBlockCommand(request.command))
        checkResendMarks(request, again);
    if (!again && open && last_[1] == kUartFlashData)
        markLeft_ = true;

    if (!again)
        carriedOut_ = false;
    last_.assign(frame.begin(), frame.end());
    acknowledged_ = false;
    if (carriedOut_)
        return lastAnswer_;

    SerialTurn turn{.carryOut = fault.carriesOut(),
                    .inStep = inStep_,
                    .mayRestart = open || !inStep_,
                    .corruptOffset = {}};
    if (fault.kind == SerialFault::Kind::kCorrupt)
        turn.corruptOffset = fault.value;
    lastAnswer_ =
        inRom ? SerialAnswer{rom_.take(request, turn), {}} : proxy_.take(request, turn, rate_);
    carriedOut_ = turn.carryOut && lastAnswer_.refusal == Refusal::kNone;
    if (carriedOut_ && request.command == kUartChangeBaudrate)
        nextRate_ = request.word(0);
    return lastAnswer_;
}

void VirtualSerialDevice::checkResendMarks(const SerialRequest& request, bool again) {
    const std::uint32_t mark = request.word(2);
    const std::string name = commandName(request.command);
    if (request.word(3) != mark || (mark != 0 && mark != kResendMark)) {
        errors_.add(name + " has wrong marks of resending");
        return;
    }
    if (request.command == kUartRamData) {
        if (mark != 0)
            errors_.add(name + " is marked as resent");
        return;
    }
    const bool either = !again && std::exchange(markLeft_, false);
    if (inStep_ && !either && (mark == kResendMark) != again)
        errors_.add(name + (again ? " is not marked as resent" : " is marked as resent"));
}

std::chrono::microseconds VirtualSerialDevice::timeFor(const SerialRequest& request) const {
    switch (request.command) {
        case kUartFlashBegin:
            return options_.eraseTime;
        case kUartFlashData:
            return options_.blockTime;
        case kUartMd5:
            return options_.digestTime;
        default:
            return {};
    }
}

void VirtualSerialDevice::answer(const SerialRequest& request, const SerialAnswer& plain,
                                 const SerialFault& fault, Clock::time_point arrivedAt) {
    using Kind = SerialFault::Kind;
    busyUntil_ = std::max(arrivedAt, busyUntil_);
    if (carriedOut_)
        busyUntil_ += timeFor(request);
    Clock::time_point readyAt = busyUntil_;
    if (fault.kind == Kind::kLateAnswer)
        readyAt += fault.time;
    if (readyAt - arrivedAt > options_.patience)
        inStep_ = false;

    After after = After::kNothing;
    if (carriedOut_ && request.command == kUartChangeBaudrate)
        after = After::kRateChanges;
    if (carriedOut_ && request.command == kUartRamEnd)
        after = After::kProxyStarts;

    std::uint8_t command = request.command;
    SerialAnswer content = plain;
    if (fault.kind == Kind::kWrongDigest && content.digest) {
        content.digest->back() ^= 1;
        proxy_.digestWasWrong();
    }
    if (fault.kind == Kind::kEarlierAnswer) {
        const std::uint8_t other = command == kUartSync ? kUartRamEnd : kUartSync;
        command = command == earlierCommand_ ? other : earlierCommand_;
        content = {};
    }
    std::vector<std::uint8_t> packet = answerPacket(command, content);
    if (fault.kind == Kind::kRefuse) {
        packet[8] = static_cast<std::uint8_t>(fault.value);
        packet[9] = static_cast<std::uint8_t>(fault.value >> 8);
    }
    if (fault.kind == Kind::kLongFrame)
        packet.resize(std::max<std::size_t>(packet.size(), fault.value), kFiller);
    shape(std::move(packet), carriedOut_, fault, readyAt, after);
}

void VirtualSerialDevice::shape(std::vector<std::uint8_t> packet, bool good,
                                const SerialFault& fault, Clock::time_point readyAt, After after) {
    using Kind = SerialFault::Kind;
    std::vector<std::uint8_t> frame = slipFrame(packet);
    const auto part = std::min<std::ptrdiff_t>(fault.value, std::ssize(frame));
    switch (fault.kind) {
        case Kind::kSilence:
            queue({}, readyAt, false, after);
            break;
        case Kind::kCutAnswer:
            inStep_ = inStep_ && fault.time < kReadGap;
            queue({frame.begin(), frame.begin() + part}, readyAt);
            queue({frame.begin() + part, frame.end()}, readyAt + fault.time, good, after);
            break;
        case Kind::kRawAnswer:
            // An empty frame may pass for the answer before, and an open one spoils the next.
            inStep_ = false;
            queue(bytesOf(fault.before), readyAt);
            break;
        case Kind::kNoise:
            if (frame.size() + fault.before.size() + fault.behind.size() > kLongestRead ||
                (fault.before + fault.behind).find('\xC0') != std::string::npos)
                inStep_ = false;
            frame.insert(frame.begin(), fault.before.begin(), fault.before.end());
            frame.insert(frame.end(), fault.behind.begin(), fault.behind.end());
            queue(std::move(frame), readyAt, good, after);
            break;
        case Kind::kLongFrame:
            if (packet.size() > kLongestAnswer || frame.size() > kLongestRead)
                inStep_ = false;  // it depends on how the host's reads cut it
            queue(std::move(frame), readyAt, good, after);
            break;
        case Kind::kEarlierAnswer:
            queue(std::move(frame), readyAt, false, after);
            break;
        case Kind::kUnplugInAnswer:
            frame.resize(static_cast<std::size_t>(part));
            queue(std::move(frame), readyAt, false, After::kLeaves);
            break;
        default:
            queue(std::move(frame), readyAt, good, after);
            break;
    }
}

void VirtualSerialDevice::queue(std::vector<std::uint8_t> bytes, Clock::time_point readyAt,
                                bool acknowledges, After after) {
    const Clock::time_point at = outPace_.carry(bytes.size(), rate_, readyAt);
    outgoing_.push_back({std::move(bytes), at, acknowledges, after});
}

void VirtualSerialDevice::send(const Outgoing& piece, Clock::time_point now) {
    std::vector<std::uint8_t> bytes = piece.bytes;
    const bool leaves = bytes.size() >= bytesUntilUnplugged() || piece.after == After::kLeaves;
    bytes.resize(std::min<std::size_t>(bytes.size(), bytesUntilUnplugged()));
    traffic_ += bytes.size();
    bool readable = line_->inUse();
    if (readable && !bytes.empty()) {
        said_ = true;
        lateness_ = std::min<Clock::duration>(now - piece.at, kMostForgiven);
        if (line_->rate() != rate_) {
            garble(bytes);
            readable = false;
            inStep_ = false;
        }
        line_->write(bytes);
    }
    if (piece.acknowledges && readable)
        acknowledged_ = true;

    if (piece.after == After::kRateChanges)
        rate_ = nextRate_;
    if (piece.after == After::kProxyStarts) {
        inStep_ = inStep_ && acknowledged_;  // else the host goes on asking for the ROM loader
        stage_ = SerialStage::kHandOver;
        quietUntil_ = now + options_.proxyStartUp;
        rate_ = options_.proxyRate;
        proxy_.start(false);
        reader_.reset();
        incoming_.clear();
        last_.clear();
        said_ = true;
        advance(now);
    }
    if (leaves) {
        leaving_ = true;
        leavesAt_ = now;
    }
}

std::uint64_t VirtualSerialDevice::bytesUntilUnplugged() const {
    return trafficLimit_ > traffic_ ? trafficLimit_ - traffic_ : 0;
}

bool VirtualSerialDevice::isPluggedIn() const {
    const std::lock_guard guard(lock_);
    return plugged_;
}

void VirtualSerialDevice::addFault(SerialFaultRule rule) {
    const std::lock_guard guard(lock_);
    faults_.add(std::move(rule));
}

void VirtualSerialDevice::unplugAtByte(std::uint64_t count) {
    const std::lock_guard guard(lock_);
    trafficLimit_ = count;
}

SerialStage VirtualSerialDevice::stage() {
    const std::lock_guard guard(lock_);
    advance(Clock::now());
    return stage_;
}

std::uint32_t VirtualSerialDevice::rate() const {
    const std::lock_guard guard(lock_);
    return rate_;
}

std::vector<std::uint8_t> VirtualSerialDevice::downloadedProxy() const {
    const std::lock_guard guard(lock_);
    return rom_.image();
}

std::uint32_t VirtualSerialDevice::count(SerialFaultPoint point) const {
    const std::lock_guard guard(lock_);
    return faults_.count(point);
}

std::uint64_t VirtualSerialDevice::traffic() const {
    const std::lock_guard guard(lock_);
    return traffic_;
}

}  // namespace simulator
