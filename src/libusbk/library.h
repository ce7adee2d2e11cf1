// All that lives between LibK_Startup and LibK_Shutdown.
#pragma once

#include <libusb.h>

#include <memory>

#include "libusbk/eventthread.h"
#include "libusbk/hotplug.h"
#include "libusbk/kerneldrivers.h"

namespace libusbk {

class Library {
  public:
    // Null with the last error if libusb does not start. Throws if threads or memory are short.
    static std::unique_ptr<Library> start();

    libusb_context* context() const { return context_.get(); }
    KernelDrivers& kernelDrivers() { return kernelDrivers_; }
    HotPlug& hotPlug() { return hotPlug_; }

  private:
    struct ExitLibusb {
        void operator()(libusb_context* context) const { libusb_exit(context); }
    };
    using Context = std::unique_ptr<libusb_context, ExitLibusb>;

    explicit Library(Context context);

    // The order matters: events run last and end first, so that nothing is told twice or to an
    // object that is gone.
    Context context_;
    KernelDrivers kernelDrivers_;
    HotPlug hotPlug_;
    EventThread eventThread_;
};

}  // namespace libusbk
