#include "libusbk/lasterror.h"

namespace libusbk {
namespace {

thread_local ErrorCode lastCode = kNoError;

}  // namespace

void setLastError(ErrorCode code) {
    lastCode = code;
}

ErrorCode lastError() {
    return lastCode;
}

bool fail(ErrorCode code) {
    lastCode = code;
    return false;
}

ErrorCode codeOfResult(int result) {
    switch (result) {
        case LIBUSB_ERROR_ACCESS:
            return kAccessDenied;
        case LIBUSB_ERROR_NO_DEVICE:
            return kDeviceNotConnected;
        case LIBUSB_ERROR_NOT_FOUND:
            return kNoMoreItems;
        case LIBUSB_ERROR_BUSY:
            return kBusy;
        case LIBUSB_ERROR_NO_MEM:
            return kNotEnoughMemory;
        case LIBUSB_ERROR_INVALID_PARAM:
            return kInvalidParameter;
        case LIBUSB_ERROR_NOT_SUPPORTED:
            return kInvalidFunction;
        default:
            return kGeneralFailure;
    }
}

ErrorCode codeOfStatus(libusb_transfer_status status) {
    return status == LIBUSB_TRANSFER_NO_DEVICE ? kDeviceNotConnected : kGeneralFailure;
}

}  // namespace libusbk
