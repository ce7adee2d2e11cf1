// The ROM stage of one device: the download of the burner image, and the hand-over to the burn.
#pragma once

#include "vorlan/burn/burn_session.h"

// What the worker of a session runs. Downloads the burner image over the session's USB handle,
// frees handle and pool, and then, if the burner was started, tells the listener, which burns the
// device on this same thread. Returns 0 if the burner was started, else 1. An interrupted download
// ends at once and reports nothing.
unsigned FwDownloadProc(SesHandle sesHandle);
