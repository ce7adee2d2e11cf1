#include "simulator/serial/serialflashproxy.h"

#include <md5.h>

#include <algorithm>
#include <vector>

namespace simulator {
namespace {

constexpr std::uint32_t kEndAction = 2;

bool isInFlash(std::uint32_t offset, std::uint32_t size) {
    return std::uint64_t{offset} + size <= kFlashWindowSize;
}

}  // namespace

void SerialFlashProxy::start(bool inSync) {
    state_ = inSync ? State::kIdle : State::kSync;
    mayChangeRate_ = true;
}

SerialAnswer SerialFlashProxy::take(const SerialRequest& request, const SerialTurn& turn,
                                    std::uint32_t rate) {
    if (state_ == State::kSync && request.command != kUartSync)
        return {outOfOrder(commandName(request.command) + " before SYNC", turn), {}};
    switch (request.command) {
        case kUartSync:
            return {sync(turn), {}};
        case kUartChangeBaudrate:
            return {changeBaudrate(request, turn, rate), {}};
        case kUartFlashBegin:
            return {begin(request, turn), {}};
        case kUartFlashData:
            return {data(request, turn), {}};
        case kUartMd5:
            return digest(request, turn);
        case kUartFlashEnd:
            return {end(request, turn), {}};
        default:
            return {outOfOrder(commandName(request.command) + " is not for it", turn), {}};
    }
}

void SerialFlashProxy::digestWasWrong() {
    if (state_ == State::kDownload)
        download_.corrupted = true;
}

Refusal SerialFlashProxy::sync(const SerialTurn& turn) {
    if (state_ != State::kSync)
        return outOfOrder("SYNC when in sync", turn);
    if (turn.carryOut)
        state_ = State::kIdle;
    return Refusal::kNone;
}

Refusal SerialFlashProxy::changeBaudrate(const SerialRequest& request, const SerialTurn& turn,
                                         std::uint32_t rate) {
    if (request.word(0) == 0)
        return breach("CHANGE_BAUDRATE to 0");
    if (request.word(1) != rate)
        return breach("CHANGE_BAUDRATE has a wrong current rate");
    if (!mayChangeRate_ || state_ != State::kIdle)
        return outOfOrder("CHANGE_BAUDRATE a second time or behind a FLASH_BEGIN", turn);
    if (turn.carryOut)
        mayChangeRate_ = false;
    return Refusal::kNone;
}

Refusal SerialFlashProxy::begin(const SerialRequest& request, const SerialTurn& turn) {
    const std::uint32_t total = request.word(0);
    if (total == 0)
        return breach("FLASH_BEGIN has a total size of 0");
    if (request.word(1) != (total - 1) / kFlashBlockSize + 1)
        return breach("FLASH_BEGIN has a wrong number of blocks");
    if (request.word(2) != kFlashBlockSize)
        return breach("FLASH_BEGIN has a wrong block size");
    if (!isInFlash(request.word(3), total))
        return breach("FLASH_BEGIN reaches past the flash");
    const bool givesUp = turn.mayRestart || (download_.hasDigest && download_.corrupted);
    if (state_ == State::kDownload && !givesUp)
        return outOfOrder("FLASH_BEGIN in the middle of a download", turn);
    if (turn.carryOut) {
        state_ = State::kDownload;
        mayChangeRate_ = false;
        download_ = {.offset = request.word(3), .total = total};
        flash_->erase(download_.offset, total);
    }
    return Refusal::kNone;
}

Refusal SerialFlashProxy::data(const SerialRequest& request, const SerialTurn& turn) {
    if (state_ != State::kDownload)
        return outOfOrder("FLASH_DATA outside a download", turn);
    if (request.word(1) != download_.nextBlock)
        return outOfOrder("FLASH_DATA has a wrong sequence number", turn);
    const Bytes block = request.block();
    if (block.size() !=
        std::min<std::size_t>(kFlashBlockSize, download_.total - download_.received))
        return breach("FLASH_DATA has a wrong block length");
    if (!turn.carryOut)
        return Refusal::kNone;
    const std::uint32_t address = download_.offset + download_.received;
    if (turn.corruptOffset && *turn.corruptOffset < block.size()) {
        std::vector<std::uint8_t> wrong(block.begin(), block.end());
        wrong[*turn.corruptOffset] ^= 1;
        flash_->program(address, wrong);
        download_.corrupted = true;
    } else {
        flash_->program(address, block);
    }
    download_.received += static_cast<std::uint32_t>(block.size());
    ++download_.nextBlock;
    return Refusal::kNone;
}

SerialAnswer SerialFlashProxy::digest(const SerialRequest& request, const SerialTurn& turn) {
    const std::uint32_t offset = request.word(0) - kFlashWindow;
    const std::uint32_t size = request.word(1);
    if (request.word(2) != 0 || request.word(3) != 0)
        return {breach("MD5 has a reserved word set"), {}};
    if (!isInFlash(offset, size))
        return {breach("MD5 reaches past the flash"), {}};
    if (state_ == State::kDownload) {
        if (download_.received != download_.total)
            return {outOfOrder("MD5 before the whole image", turn), {}};
        if (offset != download_.offset || size != download_.total)
            return {breach("MD5 is not of the image that came"), {}};
        if (turn.carryOut)
            download_.hasDigest = true;
    }
    return {Refusal::kNone, digestOf(offset, size)};
}

Refusal SerialFlashProxy::end(const SerialRequest& request, const SerialTurn& turn) {
    if (request.word(0) != kEndAction)
        return breach("FLASH_END has a wrong action");
    if (state_ != State::kDownload || download_.received != download_.total)
        return outOfOrder("FLASH_END before the whole image", turn);
    if (requiresDigest_ && !download_.hasDigest)
        return outOfOrder("FLASH_END before MD5", turn);
    if (download_.hasDigest && download_.corrupted)
        return outOfOrder("FLASH_END behind a wrong digest", turn);
    if (turn.carryOut)
        state_ = State::kIdle;
    return Refusal::kNone;
}

Digest SerialFlashProxy::digestOf(std::uint32_t offset, std::uint32_t size) const {
    constexpr std::uint32_t kPiece = 64 * 1024;
    MD5_CTX context;
    MD5Init(&context);
    while (size > 0) {
        const std::vector<std::uint8_t> piece = flash_->read(offset, std::min(size, kPiece));
        MD5Update(&context, piece.data(), piece.size());
        offset += static_cast<std::uint32_t>(piece.size());
        size -= static_cast<std::uint32_t>(piece.size());
    }
    Digest digest;
    MD5Final(digest.data(), &context);
    return digest;
}

Refusal SerialFlashProxy::breach(const std::string& text) {
    errors_->add("flash proxy: " + text);
    return Refusal::kBadPacket;
}

Refusal SerialFlashProxy::outOfOrder(const std::string& text, const SerialTurn& turn) {
    if (turn.inStep)
        breach(text);
    return Refusal::kBadOrder;
}

}  // namespace simulator
