// The ROM stage of one device: the download of the burner image, and the hand-over to the burn.
#pragma once

#include <cstdint>
#include <string>

#include "vorlan/burn/burn_session.h"
#include "vorlan/burn/usblistener.h"

// How devices get their burner image.
struct FwDownload {
    std::string burnerPath;  // native
    std::uint32_t romWait;   // in ms, that the ROM gets before its first message
    UsbListener& listener;   // outlives all workers
};

// What the worker of a session runs. Downloads the burner image over the session's USB handle,
// frees handle and pool, and then, if the burner was started, tells the listener, which burns the
// device on this same thread. Returns 0 if the burner was started, else 1. An interrupted download
// ends at once and reports nothing.
unsigned FwDownloadProc(SesHandle sesHandle, const FwDownload& settings);
