// The flash stage of a port: finds the rate of the flash proxy that runs in the device, raises it,
// and writes images to flash with an MD5 check. Each operation blocks its thread to the end.
// Silence and refusal are both tried again, seven times in all for a step.
//
// The flash is seen through a window of 8 MiB that begins at 0x80000000; addresses lie in it.
#pragma once

#include <cstdint>
#include <string>

#include "vorlan/uart/uart_protocol.h"

constexpr std::uint32_t kFlashWindow = 0x80000000;
constexpr std::uint32_t kFlashWindowSize = 0x800000;

// Tries 115200, 1024000, 1536000 and 3000000 baud in turn until one is answered, which then stays
// in force. kUartOk, or -1 after seven rounds or on a stop.
int flash_loader_handshake(UartContext* context);

// Goes over to another rate, in bit/s. kUartOk or the last failure's result. Does not heed a stop.
int flash_loader_change_baudrate(UartContext* context, std::uint32_t newRate);

// Writes a file, or `size` bytes of memory, to `address`, and with `md5Check` has the device's
// digest compared before the end command goes out. The name in progress reports is the path, or
// `name`. kUartOk, a UartResult that onError has been told of in its way, or -1 without a word for
// a stop and for an address outside the window.
int flash_loader_download_file(UartContext* context, const char* path, std::uint32_t address,
                               std::uint8_t endAction, bool md5Check);
int flash_loader_download_buffer(UartContext* context, const std::uint8_t* data, std::uint32_t size,
                                 std::uint32_t address, std::uint8_t endAction, bool md5Check,
                                 const std::wstring& name);

// Compares a file with the flash at `address`, which may be any, and writes nothing. kUartOk or a
// UartResult; onError hears only of a file that cannot be used. Does not heed a stop.
int flash_loader_md5_check(UartContext* context, const char* path, std::uint32_t address);

// The place for a download of code to RAM by way of the flash proxy. Sends nothing; always 0.
int flash_loader_download_ram(UartContext* context, const char* path, std::uint32_t address,
                              std::uint8_t endAction);
