// The packets that are exchanged over a port: first with the chip's ROM loader, then with the flash
// proxy that the ROM loader has been given. It sends once; what is sent again is up to the stages.
//
// A packet is an 8-byte header and the command's data, in a SLIP frame. All values are
// little-endian. It is strictly request and answer: a frame is written, one read follows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorlan/uart/uartcontext.h"

// Numbers and names as the protocol has them.
enum UartCommand : std::uint8_t {
    UART_FLASH_BEGIN = 2,  // to the flash proxy
    UART_FLASH_DATA = 3,
    UART_FLASH_END = 4,
    UART_RAM_BEGIN = 5,  // to the ROM loader
    UART_RAM_END = 6,
    UART_RAM_DATA = 7,
    UART_SYNC = 8,              // to both
    UART_CHANGE_BAUDRATE = 15,  // to the flash proxy
    UART_MD5 = 19,
};

constexpr std::uint32_t kRamBlockSize = 2048;  // bytes, as is the next
constexpr std::uint32_t kFlashBlockSize = 4096;

// What an exchange comes to, and every stage that fails by one.
enum UartResult : int {
    kUartOk = 0,
    kUartNoAnswer = -1,  // no complete frame came back, or a stop
    kUartRefused = -2,   // a frame came back that is no acknowledgement
    kUartFileError = -3,
    kUartMd5Mismatch = -5,
};

// XOR of all bytes, starting from 0xEF; 0 for no bytes.
std::uint8_t xor_checksum(const std::uint8_t* block, std::size_t length);

// Builds the request in txBuffer and gives its length. For the two DATA commands `data` is the
// block.
std::size_t pack_command(UartContext* context, const std::uint8_t* data, UartCommand command,
                         std::uint16_t length);

// Writes a frame and reads once, to the silence behind the answer. Gives the bytes now in rxBuffer,
// or -1.
int uart_exchange(UartContext* context, const std::uint8_t* bytes, std::size_t length);

// The same, but ends with the byte that closes the answer's frame. The silence behind that is heard
// out while the next frame is on the wire, before it if that is not sent eagerly too: what comes in
// it is dropped all the same.
int uart_exchange_eagerly(UartContext* context, const std::uint8_t* bytes, std::size_t length);

// kUartOk if the frame acknowledges the command, kUartRefused otherwise. Its length is not looked
// at: behind a short frame the codec's buffer still has the bytes of earlier ones.
int check_response(UartContext* context, const std::uint8_t* frame, UartCommand command);

// Each blocks for one exchange, sends once, and gives kUartOk, kUartNoAnswer or kUartRefused.
// Sizes and lengths are in bytes.
int send_sync(UartContext* context);
int send_ram_begin(UartContext* context, std::uint32_t address, std::uint32_t size);
int send_ram_data(UartContext* context, const std::uint8_t* block, std::uint16_t length);
int send_ram_end(UartContext* context, std::uint8_t word0, std::uint8_t word1);
int send_flash_begin(UartContext* context, std::uint32_t offset, std::uint32_t size);
int send_flash_data(UartContext* context, const std::uint8_t* block, std::uint16_t length);
int send_flash_end(UartContext* context, std::uint8_t endAction);
int send_change_baudrate(UartContext* context, std::uint32_t newRate, std::uint32_t currentRate);
int send_md5(UartContext* context, std::uint32_t address, std::uint32_t length);
