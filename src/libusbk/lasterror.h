// The calling thread's code of its last failed operation, and libusb's codes in terms of ours.
#pragma once

#include <libusb.h>

#include "platform/libusbk.h"

namespace libusbk {

void setLastError(ErrorCode code);
ErrorCode lastError();

// Sets the code and returns false: an operation fails with "return fail(...)".
bool fail(ErrorCode code);

// For a negative result of a libusb call.
ErrorCode codeOfResult(int result);
// For a transfer that neither completed nor was cancelled.
ErrorCode codeOfStatus(libusb_transfer_status status);

}  // namespace libusbk
