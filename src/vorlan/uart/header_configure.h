// The packets of the UART burn protocol, and the context of one port in which they are exchanged:
// first with the chip's ROM loader, then with the flash proxy that the ROM loader has been given.
//
// A packet is an 8-byte header and the command's data, in a SLIP frame. All values are
// little-endian. It is strictly request and answer: a frame is written, one read follows.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "vorlan/uart/serialport.h"
#include "vorlan/uart/slipcodec.h"
#include "vorlan/uart/uartfile.h"

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

constexpr std::uint32_t kRamBlockSize = 2048;
constexpr std::uint32_t kFlashBlockSize = 4096;
constexpr std::uint32_t kRomBaudrate = 115200;  // the rate of the ROM loader
constexpr int kRxBufferSize = 64;               // bytes that a read asks for
constexpr std::size_t kMd5Size = 16;

using Md5Digest = std::array<std::uint8_t, kMd5Size>;

// What an exchange comes to, and every stage that fails by one.
enum UartResult : int {
    kUartOk = 0,
    kUartNoAnswer = -1,  // no complete frame came back, or a stop
    kUartRefused = -2,   // a frame came back that is no acknowledgement
    kUartFileError = -3,
    kUartMd5Mismatch = -5,
};

// All that a port's burn works with. It belongs to the thread that serves the port; only `stop` is
// touched by others.
struct UartContext {
    std::uint32_t baudrate = kRomBaudrate;  // in force on the port
    std::uint32_t stopBits = 0;
    std::uint32_t parity = 0;
    std::array<std::uint8_t, kRxBufferSize + 1> rxBuffer{};  // last read, and a zero behind it
    std::array<std::uint8_t, 10240> txBuffer{};              // request under construction

    // The download to the ROM loader: sizes in bytes, what has been acknowledged, the next block.
    std::uint32_t ramTotal = 0;
    std::uint32_t ramBlocks = 0;
    std::uint32_t ramAddr = 0;
    std::uint32_t ramSent = 0;
    std::uint32_t ramSeq = 0;
    std::uint8_t ramRetries = 0;

    // The same for the one to the flash proxy.
    std::uint32_t flashTotal = 0;
    std::uint32_t flashBlocks = 0;
    std::uint32_t flashAddr = 0;
    std::uint32_t flashSent = 0;
    std::uint32_t flashSeq = 0;
    std::uint8_t flashRetries = 0;

    Md5Digest md5{};                        // from the last answer to UART_MD5
    bool resend = false;                    // the last UART_FLASH_DATA was not acknowledged
    SerialPort port;                        // null if it could not be opened
    const std::uint8_t* rxFrame = nullptr;  // last decoded frame

    UartFile ramImage;
    UartFile flashImage;

    // The operator's stop: asks every loop of the stages to give up at its next test. An exchange
    // under way is not cut short.
    std::atomic<bool> stop{false};
    void* user = nullptr;  // for the callbacks; nobody here looks behind it

    // Called on the serving thread; each may be null. `name` is that of the image, `percent` of its
    // blocks are acknowledged.
    void (*onProgress)(UartContext* context, const std::wstring& name, int percent) = nullptr;
    void (*onFinish)(UartContext* context) = nullptr;  // for the owner: no stage calls it
    void (*onError)(UartContext* context, int code, const std::wstring& description) = nullptr;

    SlipCodec slip;
};

std::unique_ptr<UartContext> uart_context_create();

// Closes the port and the file slots. Null is ignored.
void uart_context_destroy(std::unique_ptr<UartContext> context);

// Opens the port of that short name at 115200 baud. A port that cannot be opened shows in the first
// exchange.
void uart_context_open_port(UartContext* context, std::wstring_view portName);

// Whether the operator has asked to stop; true for no context.
bool uart_context_stopped(const UartContext* context);

// XOR of all bytes, starting from 0xEF; 0 for no bytes.
std::uint8_t xor_checksum(const std::uint8_t* block, std::size_t length);

// Builds the request in txBuffer and gives its length. For the two DATA commands `data` is the
// block.
std::size_t pack_command(UartContext* context, const std::uint8_t* data, UartCommand command,
                         std::uint16_t length);

// Writes a frame and reads once. Gives the bytes now in rxBuffer, or -1.
int uart_exchange(UartContext* context, const std::uint8_t* bytes, std::size_t length);

// kUartOk if the frame acknowledges the command, kUartRefused otherwise.
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

// Counts a failure of a step; true when it was the seventh, which ends the step. The counter is
// then back at 0.
bool uart_gives_up(std::uint8_t& retries);

// Part of a download that is acknowledged, cut to whole percent.
int uart_percent(std::uint32_t acknowledged, std::uint32_t blocks);
