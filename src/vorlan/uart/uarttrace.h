// Trace lines of the UART protocol. Each is followed by a flush of standard output, so that a
// redirected run shows the printed lines and the traced ones in step.
#pragma once

#include <cstdio>

#include "utils/trace.h"

// Whether each packet and each step that went well is traced too.
#ifdef VORLAN_UART_VERBOSE
constexpr bool kUartVerbose = true;
#else
constexpr bool kUartVerbose = false;
#endif

#define UART_TRACE(...)      \
    do {                     \
        TRACE(__VA_ARGS__);  \
        std::fflush(stdout); \
    } while (false)
#define UART_VERBOSE(...)            \
    do {                             \
        if constexpr (kUartVerbose)  \
            UART_TRACE(__VA_ARGS__); \
    } while (false)
