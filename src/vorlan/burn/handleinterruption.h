// Ties a USB handle to the interruption of the thread that uses it.
#pragma once

#include <stop_token>

#include "utils/interruption.h"
#include "vorlan/burn/libusbktable.h"

// While it lives, an interruption of the thread that made it ends all waits on the handle at once.
// It must be gone before the handle is freed.
class HandleInterruption {
  public:
    explicit HandleInterruption(libusbk::UsbHandle* handle)
        : callback_(interruption::current(), Interrupt{handle}) {}

  private:
    struct Interrupt {
        libusbk::UsbHandle* handle;
        void operator()() const { libusbkTable().UsbK_Interrupt(handle); }
    };

    std::stop_callback<Interrupt> callback_;
};
