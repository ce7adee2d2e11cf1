#include "vorlan/uart/uart_protocol.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <utility>

#include "utils/littleendian.h"
#include "utils/logutil.h"
#include "vorlan/uart/uarttrace.h"

#define LOG_TAG "UartProtocol"

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kBlockHeaderSize = 16;
constexpr std::uint32_t kResendMarker = 0x55555555;

// Offsets in a packet; DATA0 on stand in answers only.
constexpr std::size_t kDir = 0;
constexpr std::size_t kCom = 1;
constexpr std::size_t kSize = 2;
constexpr std::size_t kCheck = 4;
constexpr std::size_t kData0 = 8;
constexpr std::size_t kData1 = 9;
constexpr std::size_t kDigest = 10;

bool carriesBlock(UartCommand command) {
    return command == UART_FLASH_DATA || command == UART_RAM_DATA;
}

// The data of the commands that consist of words.
template <std::size_t kCount>
std::array<std::uint8_t, kCount * 4> wordsOf(const std::uint32_t (&words)[kCount]) {
    std::array<std::uint8_t, kCount * 4> bytes;
    for (std::size_t i = 0; i < kCount; ++i)
        littleendian::put(bytes.data() + i * 4, words[i]);
    return bytes;
}

// One command, up to its decoded answer; null if none came.
const std::uint8_t* answerTo(UartContext* context, const std::uint8_t* data, UartCommand command,
                             std::size_t length) {
    const std::size_t size =
        pack_command(context, data, command, static_cast<std::uint16_t>(length));
    const std::uint8_t* output = nullptr;
    std::size_t outputLength = 0;
    if (context->slip.slip_encode(context->txBuffer.data(), size, output, outputLength) < 0)
        return nullptr;
    const bool eager = command == UART_FLASH_DATA && context->eagerBlocks;
    const int received = eager ? uart_exchange_eagerly(context, output, outputLength)
                               : uart_exchange(context, output, outputLength);
    const std::uint8_t* input = nullptr;
    std::size_t inputLength = 0;
    if (context->slip.slip_decode(context->rxBuffer.data(), received, input, inputLength) ==
        SlipCodec::Result::kComplete)
        return input;
    if (kUartVerbose || command == UART_SYNC)
        UART_TRACE("Unpack receive package trigger error\n");
    return nullptr;
}

int sendCommand(UartContext* context, const std::uint8_t* data, UartCommand command,
                std::size_t length) {
    const std::uint8_t* const answer = answerTo(context, data, command, length);
    return answer != nullptr ? check_response(context, answer, command) : kUartNoAnswer;
}

template <std::size_t kLength>
int sendCommand(UartContext* context, UartCommand command,
                const std::array<std::uint8_t, kLength>& data) {
    return sendCommand(context, data.data(), command, kLength);
}

}  // namespace

std::uint8_t xor_checksum(const std::uint8_t* block, std::size_t length) {
    if (block == nullptr || length == 0)
        return 0;
    std::uint8_t checksum = 0xEF;
    for (std::size_t i = 0; i < length; ++i)
        checksum ^= block[i];
    return checksum;
}

std::size_t pack_command(UartContext* context, const std::uint8_t* data, UartCommand command,
                         std::uint16_t length) {
    const bool isBlock = carriesBlock(command);
    const std::size_t before = kHeaderSize + (isBlock ? kBlockHeaderSize : 0);
    assert(before + length <= context->txBuffer.size());
    std::uint8_t* const packet = context->txBuffer.data();
    const auto size = static_cast<std::uint16_t>(before - kHeaderSize + length);
    const std::uint32_t check = isBlock ? xor_checksum(data, length) : 0U;
    packet[kDir] = 0;
    packet[kCom] = command;
    littleendian::put(packet + kSize, size);
    littleendian::put(packet + kCheck, check);
    if (isBlock) {
        const bool toFlash = command == UART_FLASH_DATA;
        const std::uint32_t marker = toFlash && context->resend ? kResendMarker : 0;
        std::uint8_t* const header = packet + kHeaderSize;
        littleendian::put(header, std::uint32_t{length});
        littleendian::put(header + 4, toFlash ? context->flash.seq : context->ram.seq);
        littleendian::put(header + 8, marker);
        littleendian::put(header + 12, marker);
    }
    if (length > 0)
        std::memcpy(packet + before, data, length);
    UART_VERBOSE("Send data--> DIR: %d\nCOM: %d\nSIZE: %d\nCHECK: %d\n", packet[kDir], packet[kCom],
                 size, static_cast<int>(check));
    return before + length;
}

int uart_exchange(UartContext* context, const std::uint8_t* bytes, std::size_t length) {
    serial_finish_read(context->port);
    if (serial_write(context->port, bytes, static_cast<int>(length)) < 1)
        return -1;
    return serial_read(context->port, context->rxBuffer.data(), kRxBufferSize);
}

int uart_exchange_eagerly(UartContext* context, const std::uint8_t* bytes, std::size_t length) {
    // No device answers a frame that has no end yet. So the end is held back until the silence is
    // over, by which time a block at its full rate is still on the wire.
    const int open = static_cast<int>(length) - 1;
    const int written = serial_write(context->port, bytes, open);
    if (written < 1)
        return -1;
    serial_finish_read(context->port);
    if (written == open && serial_write(context->port, bytes + open, 1) < 1)
        return -1;
    return serial_read_until(context->port, context->rxBuffer.data(), kRxBufferSize,
                             [context](const std::uint8_t* raw, int count) {
                                 return context->slip.wouldComplete(raw, count);
                             });
}

int check_response(UartContext* context, const std::uint8_t* frame, UartCommand command) {
    context->rxFrame = frame;
    UART_VERBOSE("Receive data--> DIR: %d\nCOM: %d\nSIZE: %d\nVALUE: %d\nDATA0: %d\nDATA1: %d\n",
                 frame[kDir], frame[kCom], littleendian::get<std::uint16_t>(frame + kSize),
                 static_cast<int>(littleendian::get<std::uint32_t>(frame + kCheck)), frame[kData0],
                 frame[kData1]);
    const bool acknowledges =
        frame[kDir] == 1 && frame[kCom] == command && frame[kData0] == 0 && frame[kData1] == 0;
    return acknowledges ? kUartOk : kUartRefused;
}

int send_sync(UartContext* context) {
    std::array<std::uint8_t, 36> request{0x07, 0x07, 0x12, 0x20};
    std::fill(request.begin() + 4, request.end(), std::uint8_t{0x55});
    return sendCommand(context, UART_SYNC, request);
}

int send_ram_begin(UartContext* context, std::uint32_t address, std::uint32_t size) {
    context->ram.addr = address;
    context->ram.total = size;
    context->ram.blocks = (size - 1) / kRamBlockSize + 1;
    context->ram.sent = 0;
    context->ram.seq = 0;
    return sendCommand(context, UART_RAM_BEGIN,
                       wordsOf({size, context->ram.blocks, kRamBlockSize, address}));
}

int send_ram_data(UartContext* context, const std::uint8_t* block, std::uint16_t length) {
    const int result = sendCommand(context, block, UART_RAM_DATA, length);
    if (result == kUartOk) {
        context->ram.sent += length;
        ++context->ram.seq;
    }
    return result;
}

int send_ram_end(UartContext* context, std::uint8_t word0, std::uint8_t word1) {
    return sendCommand(context, UART_RAM_END, wordsOf({word0, word1}));
}

int send_flash_begin(UartContext* context, std::uint32_t offset, std::uint32_t size) {
    context->flash.addr = offset;
    context->flash.total = size;
    context->flash.blocks = (size - 1) / kFlashBlockSize + 1;
    context->flash.sent = 0;
    context->flash.seq = 0;
    return sendCommand(context, UART_FLASH_BEGIN,
                       wordsOf({size, context->flash.blocks, kFlashBlockSize, offset}));
}

int send_flash_data(UartContext* context, const std::uint8_t* block, std::uint16_t length) {
    const int result = sendCommand(context, block, UART_FLASH_DATA, length);
    context->resend = result != kUartOk;
    if (result == kUartOk) {
        context->flash.sent += length;
        ++context->flash.seq;
    } else if (std::exchange(context->eagerBlocks, false) && context->port != nullptr) {
        LOG_W("%s: block %u was not acknowledged at once; behind each answer there is a pause now",
              context->port->path().c_str(), context->flash.seq);
    }
    return result;
}

int send_flash_end(UartContext* context, std::uint8_t endAction) {
    return sendCommand(context, UART_FLASH_END, wordsOf({endAction}));
}

int send_change_baudrate(UartContext* context, std::uint32_t newRate, std::uint32_t currentRate) {
    return sendCommand(context, UART_CHANGE_BAUDRATE, wordsOf({newRate, currentRate}));
}

int send_md5(UartContext* context, std::uint32_t address, std::uint32_t length) {
    const auto data = wordsOf({address, length, 0, 0});
    const std::uint8_t* const answer = answerTo(context, data.data(), UART_MD5, data.size());
    if (answer == nullptr)
        return kUartNoAnswer;
    // The digest is taken even from an answer that is then refused.
    std::copy_n(answer + kDigest, kMd5Size, context->md5.begin());
    return check_response(context, answer, UART_MD5);
}
