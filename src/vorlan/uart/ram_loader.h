// The ROM stage of a port: one attempt to connect with the chip's ROM loader at 115200 baud and to
// download the flash proxy, which the ROM then runs from RAM. Attempts are repeated by the caller.
#pragma once

#include "vorlan/uart/uart_protocol.h"

// Relative to the current directory; it lies beside the program.
constexpr const char* kFlashProxyPath = "ramloader/flash_proxy.img";

// Blocks until the image is acknowledged or the attempt has failed. kUartOk, or -1 for every
// failure, with its reason in the trace; a stop is one. Silence fails the attempt at once; a
// refused command is sent again, seven times at most.
int ram_loader_download(UartContext* context);
