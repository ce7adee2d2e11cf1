#include "simulator/serial/serialromloader.h"

#include <algorithm>

namespace simulator {

void SerialRomLoader::powerOn() {
    state_ = State::kSync;
    image_.clear();
}

void SerialRomLoader::opened() {
    state_ = State::kSync;
}

Refusal SerialRomLoader::take(const SerialRequest& request, const SerialTurn& turn) {
    switch (request.command) {
        case kUartSync:
            return sync(turn);
        case kUartRamBegin:
            return begin(request, turn);
        case kUartRamData:
            return data(request, turn);
        case kUartRamEnd:
            return end(request, turn);
        default:
            return outOfOrder(commandName(request.command) + " is not for it", turn);
    }
}

Refusal SerialRomLoader::sync(const SerialTurn& turn) {
    if (state_ != State::kSync && !turn.mayRestart)
        return outOfOrder("SYNC in the middle of a download", turn);
    if (turn.carryOut)
        state_ = State::kBegin;
    return Refusal::kNone;
}

Refusal SerialRomLoader::begin(const SerialRequest& request, const SerialTurn& turn) {
    const std::uint32_t total = request.word(0);
    if (total == 0)
        return breach("RAM_BEGIN has a total size of 0");
    if (request.word(1) != (total - 1) / kRamBlockSize + 1)
        return breach("RAM_BEGIN has a wrong number of blocks");
    if (request.word(2) != kRamBlockSize)
        return breach("RAM_BEGIN has a wrong block size");
    if (request.word(3) != 0)
        return breach("RAM_BEGIN has a wrong address");
    if (state_ != State::kBegin)
        return outOfOrder("RAM_BEGIN where SYNC or a block is due", turn);
    if (turn.carryOut) {
        state_ = State::kData;
        total_ = total;
        nextBlock_ = 0;
        image_.clear();
    }
    return Refusal::kNone;
}

Refusal SerialRomLoader::data(const SerialRequest& request, const SerialTurn& turn) {
    if (state_ != State::kData)
        return outOfOrder("RAM_DATA outside a download", turn);
    if (request.word(1) != nextBlock_)
        return outOfOrder("RAM_DATA has a wrong sequence number", turn);
    const Bytes block = request.block();
    if (block.size() != std::min<std::size_t>(kRamBlockSize, total_ - image_.size()))
        return breach("RAM_DATA has a wrong block length");
    if (turn.carryOut) {
        image_.insert(image_.end(), block.begin(), block.end());
        ++nextBlock_;
    }
    return Refusal::kNone;
}

Refusal SerialRomLoader::end(const SerialRequest& request, const SerialTurn& turn) {
    if (request.word(0) != 0 || request.word(1) != 0)
        return breach("RAM_END has a word set");
    if (state_ != State::kData || image_.size() != total_)
        return outOfOrder("RAM_END before the whole image", turn);
    if (turn.carryOut)
        state_ = State::kEnded;
    return Refusal::kNone;
}

Refusal SerialRomLoader::breach(const std::string& text) {
    errors_->add("ROM loader: " + text);
    return Refusal::kBadPacket;
}

Refusal SerialRomLoader::outOfOrder(const std::string& text, const SerialTurn& turn) {
    if (turn.inStep)
        breach(text);
    return Refusal::kBadOrder;
}

}  // namespace simulator
