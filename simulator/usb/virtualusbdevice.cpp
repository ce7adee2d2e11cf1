#include "simulator/usb/virtualusbdevice.h"

#include <algorithm>
#include <array>
#include <utility>

namespace simulator {
namespace {

// Bytes of answers that mean nothing are not 0, so that a host that reads them shows it.
constexpr std::uint8_t kFiller = 0xA5;

// An answer that takes longer than this may find a host that has asked again meanwhile.
constexpr std::chrono::milliseconds kPatience{100};

constexpr std::size_t kLongestDescription = 255;

Bytes bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::array<std::uint8_t, kRecordSize> encode(std::uint8_t code, std::uint8_t cmdorg,
                                             std::uint8_t descriptionLength) {
    std::array<std::uint8_t, kRecordSize> record{};
    record.fill(kFiller);
    record[3] = static_cast<std::uint8_t>(code << 1 | 1);
    record[4] = cmdorg;
    record[5] = descriptionLength;
    return record;
}

}  // namespace

VirtualUsbDevice::VirtualUsbDevice(UsbDeviceOptions options)
    : options_(options), rom_(errors_), burner_(errors_, flash_, options_) {}

void VirtualUsbDevice::powerOn() {
    const std::lock_guard guard(lock_);
    rom_.powerOn();
    burner_.powerOn();
    stage_ = options_.startsInBurner ? UsbStage::kBurner : UsbStage::kRomLoader;
    left_ = false;
    fresh_ = false;
    inStep_ = true;
    quietUntil_ = Clock::now() + options_.romStartUp;
    commands_ = {};
    data_ = {};
    halted_.clear();
    resets_.clear();
    traffic_ = 0;
}

void VirtualUsbDevice::opened() {
    const std::lock_guard guard(lock_);
    rom_.opened();
    fresh_ = true;
    // A host that ended in the middle has left its last answers behind.
    if (!commands_.answers.empty() || !data_.answers.empty())
        inStep_ = false;
}

TransferOutcome VirtualUsbDevice::hostWrites(std::uint8_t endpoint, Bytes bytes) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard guard(lock_);
    if (left_)
        return {.state = TransferOutcome::State::kRefused, .left = true};
    advance(now);
    if (halted_.contains(endpoint))
        return {.state = TransferOutcome::State::kStalled};
    if (now < quietUntil_)
        return {.state = TransferOutcome::State::kWaiting, .again = quietUntil_};

    const auto size = static_cast<std::uint32_t>(bytes.size());
    if (size > bytesUntilUnplugged()) {
        const auto moved = static_cast<std::uint32_t>(bytesUntilUnplugged());
        traffic_ += moved;
        leave();
        return {.state = TransferOutcome::State::kRefused, .moved = moved, .left = true};
    }
    if (options_.recordsTransfers)
        transfers_.push_back({endpoint, {bytes.begin(), bytes.end()}});

    TransferOutcome outcome{.state = TransferOutcome::State::kEnded, .moved = size};
    // A host that has opened the device anew cannot know that its burner runs already, and may go
    // on asking for a download.
    fresh_ = fresh_ && stage_ == UsbStage::kBurner && endpoint == kDataOut && bytes.size() == 24 &&
             bytes[1] == kMemBegin;
    if (!fresh_) {
        outcome.needsClaim = stage_ == UsbStage::kBurner;
        const UsbFault& fault = strike(pointOf(endpoint, bytes));
        if (fault.kind >= UsbFault::Kind::kStall && fault.kind <= UsbFault::Kind::kUnplug)
            return transferFault(endpoint, fault, size);
        if (fault.kind != UsbFault::Kind::kSwallow)
            take(endpoint, bytes, fault, now);
    }
    traffic_ += size;
    if (bytesUntilUnplugged() == 0) {
        leave();
        outcome.left = true;
    }
    return outcome;
}

TransferOutcome VirtualUsbDevice::transferFault(std::uint8_t endpoint, const UsbFault& fault,
                                                std::uint32_t size) {
    if (fault.kind == UsbFault::Kind::kStall) {
        halted_.insert(endpoint);
        return {.state = TransferOutcome::State::kStalled};
    }
    TransferOutcome outcome{.state = TransferOutcome::State::kRefused,
                            .moved = std::min(fault.value, size)};
    traffic_ += outcome.moved;
    if (fault.kind == UsbFault::Kind::kShortWrite)
        outcome.state = TransferOutcome::State::kEnded;
    if (fault.kind == UsbFault::Kind::kUnplug) {
        leave();
        outcome.left = true;
    }
    return outcome;
}

TransferOutcome VirtualUsbDevice::hostReads(std::uint8_t endpoint, std::span<std::uint8_t> buffer,
                                            std::uint32_t moved) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard guard(lock_);
    TransferOutcome outcome{.state = TransferOutcome::State::kRefused, .moved = moved};
    advance(now);
    outcome.needsClaim = stage_ == UsbStage::kBurner && !fresh_;
    Exchange& exchange = endpoint == kDataIn ? data_ : commands_;
    AnswerQueue& answers = exchange.answers;
    while (!left_) {
        if (halted_.contains(endpoint)) {
            outcome.state = TransferOutcome::State::kStalled;
            return outcome;
        }
        if (answers.empty() || answers.front().readableAt > now) {
            outcome.state = TransferOutcome::State::kWaiting;
            if (!answers.empty())
                outcome.again = answers.front().readableAt;
            return outcome;
        }
        const Packet& packet = answers.front();
        if (packet.stalls) {
            answers.pop();
            halted_.insert(endpoint);
            continue;
        }
        if (outcome.moved == 0 && answers.offset() == 0)
            checkRead(packet, buffer.size());

        const Bytes rest = packet.content().subspan(answers.offset());
        const std::size_t room =
            std::min<std::uint64_t>(buffer.size() - outcome.moved, bytesUntilUnplugged());
        const Bytes piece = rest.first(std::min(rest.size(), room));
        std::ranges::copy(piece, buffer.subspan(outcome.moved).begin());
        if (options_.recordsTransfers)
            transfers_.push_back({endpoint, {piece.begin(), piece.end()}});
        outcome.moved += static_cast<std::uint32_t>(piece.size());
        traffic_ += piece.size();
        bool ended = outcome.moved == buffer.size();
        if (piece.size() == rest.size()) {
            ended = ended || packet.endsTransfer;
            delivered(exchange, packet, now);
            answers.pop();
        } else {
            answers.consume(piece.size());
        }
        if (bytesUntilUnplugged() == 0)
            leave();
        if (ended) {
            outcome.state = TransferOutcome::State::kEnded;
            break;
        }
    }
    outcome.left = left_;
    return outcome;
}

void VirtualUsbDevice::checkRead(const Packet& packet, std::size_t size) {
    const Asked asked = packet.asked;
    if (asked.size != 0 && (asked.exactly ? size != asked.size : size > asked.size))
        errors_.add("an answer of " + std::to_string(asked.size) +
                    " bytes was read with a length of " + std::to_string(size));
}

void VirtualUsbDevice::delivered(Exchange& exchange, const Packet& packet, Clock::time_point now) {
    if (packet.answers == 0)
        return;
    exchange.answered = packet.answers;
    if (stage_ == UsbStage::kRomLoader && rom_.ended()) {
        stage_ = UsbStage::kHandOver;
        quietUntil_ = now + options_.handOver;
    }
}

bool VirtualUsbDevice::hostFlushes(std::uint8_t endpoint) {
    const std::lock_guard guard(lock_);
    if (halted_.contains(endpoint))
        return false;
    if (endpoint == kCommandIn)
        commands_.answers.drain(Clock::now());
    if (endpoint == kDataIn)
        data_.answers.drain(Clock::now());
    return true;
}

void VirtualUsbDevice::hostResets(std::uint8_t endpoint) {
    const std::lock_guard guard(lock_);
    halted_.erase(endpoint);
    resets_.push_back(endpoint);
}

void VirtualUsbDevice::addFault(UsbFaultRule rule) {
    const std::lock_guard guard(lock_);
    faults_.add(std::move(rule));
}

void VirtualUsbDevice::unplugAtByte(std::uint64_t count) {
    const std::lock_guard guard(lock_);
    trafficLimit_ = count;
}

UsbStage VirtualUsbDevice::stage() {
    const std::lock_guard guard(lock_);
    advance(Clock::now());
    return stage_;
}

std::vector<std::uint8_t> VirtualUsbDevice::downloadedBurner() const {
    const std::lock_guard guard(lock_);
    return rom_.image();
}

std::uint32_t VirtualUsbDevice::count(UsbFaultPoint point) const {
    const std::lock_guard guard(lock_);
    return faults_.count(point);
}

std::uint64_t VirtualUsbDevice::traffic() const {
    const std::lock_guard guard(lock_);
    return traffic_;
}

std::vector<std::uint8_t> VirtualUsbDevice::resets() const {
    const std::lock_guard guard(lock_);
    return resets_;
}

std::size_t VirtualUsbDevice::unreadBytes(std::uint8_t endpoint) const {
    const std::lock_guard guard(lock_);
    return (endpoint == kDataIn ? data_ : commands_).answers.unreadBytes();
}

std::vector<UsbTransfer> VirtualUsbDevice::transfers() const {
    const std::lock_guard guard(lock_);
    return transfers_;
}

void VirtualUsbDevice::advance(Clock::time_point now) {
    if (stage_ != UsbStage::kHandOver || now < quietUntil_)
        return;
    stage_ = UsbStage::kBurner;
    burner_.powerOn();
    commands_ = {};
    data_ = {};
    inStep_ = true;
}

std::uint64_t VirtualUsbDevice::bytesUntilUnplugged() const {
    return trafficLimit_ > traffic_ ? trafficLimit_ - traffic_ : 0;
}

std::optional<UsbFaultPoint> VirtualUsbDevice::pointOf(std::uint8_t endpoint, Bytes bytes) const {
    static constexpr std::array kCommands = {UsbFaultPoint::kFlashWrite, UsbFaultPoint::kVerifyOnly,
                                             UsbFaultPoint::kEraseOnly,  UsbFaultPoint::kSync,
                                             UsbFaultPoint::kGetResult,  UsbFaultPoint::kSetCrc64};
    if (stage_ == UsbStage::kRomLoader) {
        if (endpoint != kDataOut || bytes.size() < 2)
            return std::nullopt;
        switch (bytes[1]) {
            case kMemBegin:
                return UsbFaultPoint::kMemBegin;
            case kMemData:
                return UsbFaultPoint::kMemData;
            case kMemEnd:
                return UsbFaultPoint::kMemEnd;
            default:
                return std::nullopt;
        }
    }
    if (endpoint == kDataOut)
        return UsbFaultPoint::kChunk;
    const std::size_t code = bytes.size() == kRecordSize ? bytes[3] >> 1 : 0U;
    if (code < kFlashWrite || code > kSetCrc64)
        return std::nullopt;
    return kCommands[code - kFlashWrite];
}

const UsbFault& VirtualUsbDevice::strike(std::optional<UsbFaultPoint> point) {
    static const UsbFault none;
    return point ? faults_.strike(*point) : none;
}

void VirtualUsbDevice::take(std::uint8_t endpoint, Bytes bytes, const UsbFault& fault,
                            Clock::time_point now) {
    if (stage_ == UsbStage::kRomLoader) {
        if (endpoint == kDataOut)
            takeRomMessage(bytes, fault, now);
        else
            errors_.add("ROM loader: a command record in the ROM stage");
    } else if (endpoint == kCommandOut) {
        takeCommand(bytes, fault, now);
    } else {
        takeChunk(bytes, fault, now);
    }
}

UsbTurn VirtualUsbDevice::turnOf(const Exchange& exchange, const UsbFault& fault,
                                 Clock::time_point now) const {
    UsbTurn turn{now, fault.carriesOut(), exchange.lastAnswered(), inStep_, {}};
    if (fault.kind == UsbFault::Kind::kCorrupt)
        turn.corruptOffset = fault.value;
    return turn;
}

void VirtualUsbDevice::takeRomMessage(Bytes message, const UsbFault& fault, Clock::time_point now) {
    const UsbTurn turn = turnOf(commands_, fault, now);
    const bool again = rom_.repeats(message) && !turn.lastAnswered;
    std::uint8_t status = rom_.take(message, turn);
    if (!again)
        ++commands_.message;
    if (fault.kind == UsbFault::Kind::kRomStatus) {
        status = static_cast<std::uint8_t>(fault.value);
        if (status >= kFatalStatus)
            rom_.die();
    }
    std::array<std::uint8_t, kRomReplySize> reply{};
    reply.fill(kFiller);
    reply[8] = status;
    answer(commands_, reply, {kRomReplySize}, status == 0, fault, now);
}

void VirtualUsbDevice::takeCommand(Bytes record, const UsbFault& fault, Clock::time_point now) {
    if (record.size() != kRecordSize) {
        errors_.add("burner: a command record of " + std::to_string(record.size()) + " bytes");
        return;
    }
    AnswerQueue& answers = commands_.answers;
    if (inStep_ && !answers.empty() && answers.front().answers != 0 &&
        answers.front().readableAt <= now)
        errors_.add("burner: a command before the last answer was read");
    const bool tookData = burner_.takesData();
    const UsbBurner::Response response = burner_.takeCommand(record, turnOf(commands_, fault, now));
    ++commands_.message;
    if (!tookData && burner_.takesData())
        data_ = {};  // what an earlier write has left
    if (fault.kind == UsbFault::Kind::kError && response.cmdorg != kSync)
        burner_.fail();
    respond(commands_, response, fault, now);
}

void VirtualUsbDevice::takeChunk(Bytes chunk, const UsbFault& fault, Clock::time_point now) {
    const std::optional<UsbBurner::Response> response =
        burner_.takeChunk(chunk, turnOf(data_, fault, now));
    ++data_.message;
    if (!response)
        return;
    if (!fault.carriesOut())
        burner_.fail();
    respond(data_, *response, fault, now);
}

void VirtualUsbDevice::respond(Exchange& exchange, const UsbBurner::Response& response,
                               const UsbFault& fault, Clock::time_point now) {
    std::uint8_t code = response.code;
    std::string description = response.description;
    if (fault.kind == UsbFault::Kind::kResponse)
        code = static_cast<std::uint8_t>(fault.value);
    if (fault.kind == UsbFault::Kind::kError) {
        code = kError;
        description = fault.text.substr(0, kLongestDescription);
    }
    const bool good = fault.carriesOut() && !fault.cmdorg;
    const auto length = fault.length.value_or(static_cast<std::uint8_t>(description.size()));
    const Clock::time_point readableAt = now + response.delay;
    answer(exchange,
           encode(code, fault.cmdorg.value_or(response.cmdorg), code == kError ? length : kFiller),
           {kRecordSize}, good, fault, readableAt);
    if (code != kError || length == 0 || fault.kind == UsbFault::Kind::kSilence)
        return;
    answer(commands_, bytesOf(description), {length, false}, false,
           strike(UsbFaultPoint::kDescription), readableAt);
}

void VirtualUsbDevice::answer(Exchange& exchange, Bytes bytes, Asked asked, bool good,
                              const UsbFault& fault, Clock::time_point readableAt) {
    AnswerQueue& answers = exchange.answers;
    const bool cut = fault.kind == UsbFault::Kind::kCutAnswer;
    const bool late =
        cut || fault.kind == UsbFault::Kind::kLateAnswer || readableAt > Clock::now() + kPatience;
    if (late && &exchange == &commands_)
        inStep_ = false;

    switch (fault.kind) {
        case UsbFault::Kind::kSilence:
            return;
        case UsbFault::Kind::kStallAnswer:
            answers.add(readableAt).stalls = true;
            return;
        case UsbFault::Kind::kLateAnswer:
            readableAt += fault.time;
            break;
        default:
            break;
    }

    const bool whole = fault.kind != UsbFault::Kind::kShortAnswer && !cut;
    const std::size_t firstSize =
        whole ? bytes.size() : std::min<std::size_t>(fault.value, bytes.size());
    const std::uint64_t answered = good ? exchange.message : 0;
    Packet& first = answers.add(readableAt);
    first.asked = asked;
    first.append(bytes.first(firstSize));
    first.endsTransfer = !cut;
    first.answers = whole ? answered : 0;
    if (cut) {
        Packet& rest = answers.add(readableAt + fault.time);
        rest.append(bytes.subspan(firstSize));
        rest.answers = answered;
    }
}

void VirtualUsbDevice::leave() {
    left_ = true;
    trafficLimit_ = UINT64_MAX;
}

}  // namespace simulator
