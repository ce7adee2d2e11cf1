// The context of one port's burn: the port, the buffers, the state of the two downloads and the
// callbacks of whoever serves the port. Everything of the serial engine works on it.
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

constexpr std::uint32_t kRomBaudrate = 115200;  // bit/s; the rate of the ROM loader
constexpr int kRxBufferSize = 64;               // bytes that a read asks for
constexpr std::size_t kMd5Size = 16;            // bytes

using Md5Digest = std::array<std::uint8_t, kMd5Size>;

// How far an image has come into the device. Sizes are in bytes.
struct UartDownload {
    UartFile image;  // if it comes from a file
    std::uint32_t total = 0;
    std::uint32_t blocks = 0;
    std::uint32_t addr = 0;    // in RAM, or an offset in the flash
    std::uint32_t sent = 0;    // acknowledged
    std::uint32_t seq = 0;     // of the next block
    std::uint8_t retries = 0;  // failures of the step under way
};

// It belongs to the thread that serves the port; only `stop` is touched by others.
struct UartContext {
    std::uint32_t baudrate = kRomBaudrate;  // bit/s, in force on the port
    std::uint32_t stopBits = 0;             // this and the parity as platform::SerialLine has them
    std::uint32_t parity = 0;
    std::array<std::uint8_t, kRxBufferSize + 1> rxBuffer{};  // last read, and a zero behind it
    std::array<std::uint8_t, 10240> txBuffer{};              // request under construction

    UartDownload ram;    // to the ROM loader
    UartDownload flash;  // to the flash proxy

    Md5Digest md5{};                        // from the last answer to UART_MD5
    bool resend = false;                    // the last UART_FLASH_DATA was not acknowledged
    bool eagerBlocks = true;                // see uart_exchange_eagerly; every block was so far
                                            // acknowledged at its first try
    SerialPort port;                        // null if it could not be opened
    const std::uint8_t* rxFrame = nullptr;  // last decoded frame, in the codec's buffer

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

// Opens the port of that short name at the ROM loader's rate. A port that cannot be opened shows in
// the first exchange.
void uart_context_open_port(UartContext* context, std::wstring_view portName);

// Whether the operator has asked to stop; true for no context.
bool uart_context_stopped(const UartContext* context);
