#include "libusbk/library.h"

#include <utility>

#include "libusbk/lasterror.h"
#include "utils/trace.h"

namespace libusbk {

std::unique_ptr<Library> Library::start() {
    libusb_context* context = nullptr;
    const int result = libusb_init(&context);
    if (result != 0) {
        TRACE("libusb does not start (%s)\n", libusb_error_name(result));
        setLastError(codeOfResult(result));
        return nullptr;
    }
    return std::unique_ptr<Library>(new Library(Context(context)));
}

Library::Library(Context context)
    : context_(std::move(context)),
      hotPlug_(context_.get(), kernelDrivers_),
      eventThread_(context_.get()) {}

}  // namespace libusbk
