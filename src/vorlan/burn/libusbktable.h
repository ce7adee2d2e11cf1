// The table of libusbK's operations that the USB engine calls through, and its run-time binding.
#pragma once

#include "platform/libusbk.h"

// Every operation of the table, by the name under which the library exports it.
#define LIBUSBK_OPERATIONS(X) \
    X(LibK_LastError)         \
    X(LibK_Startup)           \
    X(LibK_Shutdown)          \
    X(LibK_IsDriverInstalled) \
    X(HotK_Init)              \
    X(HotK_Free)              \
    X(LstK_InitEx)            \
    X(LstK_FindByVidPid)      \
    X(LstK_Free)              \
    X(UsbK_Init)              \
    X(UsbK_Free)              \
    X(UsbK_ClaimInterface)    \
    X(UsbK_ReleaseInterface)  \
    X(UsbK_ReadPipe)          \
    X(UsbK_WritePipe)         \
    X(UsbK_ResetPipe)         \
    X(UsbK_FlushPipe)         \
    X(UsbK_Interrupt)         \
    X(OvlK_Init)              \
    X(OvlK_Free)              \
    X(OvlK_Acquire)           \
    X(OvlK_Release)           \
    X(OvlK_ReUse)             \
    X(OvlK_WaitOrCancel)

struct LibusbkTable {
// NOLINTNEXTLINE(bugprone-macro-parentheses): the second use declares the member.
#define LIBUSBK_DECLARE(name) decltype(&::name) name;
    LIBUSBK_OPERATIONS(LIBUSBK_DECLARE)
#undef LIBUSBK_DECLARE
};

// The table in force. While nothing is bound, each of its operations fails with
// libusbk::kModuleNotFound; none is ever null.
const LibusbkTable& libusbkTable();

// Makes later bindings use this table instead of the library: the simulator's bus, or a test's. The
// table must outlive them; null goes back to the library. Not while something is bound.
void substituteLibusbk(const LibusbkTable* table);

// Keeps libusbK bound for as long as it lives. Bindings nest: the first binds and the last unbinds.
class LibusbkBinding {
  public:
    // Loads libusbK and looks up every operation. If the library or one operation is missing, or
    // the library does not start, the trace says so and nothing is bound.
    LibusbkBinding();
    ~LibusbkBinding();
    LibusbkBinding(const LibusbkBinding&) = delete;
    LibusbkBinding& operator=(const LibusbkBinding&) = delete;

    static bool isBound();
};
