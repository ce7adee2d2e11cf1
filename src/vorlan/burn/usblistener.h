// How BurnAdmin reports what happens to USB devices. A session stays valid until onRemove returns.
#pragma once

#include <cstdint>
#include <string>

#include "vorlan/burn/burn_session.h"

class UsbListener {
  public:
    // A device has appeared. Hot-plug thread, inside the administrator's lock: must not wait for
    // other threads that want it.
    virtual void onPlug(SesHandle session) = 0;
    // The burner image runs on the device. The session's worker; this call carries the whole burn.
    virtual void onBurnerReady(SesHandle session) = 0;
    // The device has left or the administrator is being stopped; the session's worker has ended.
    // Hot-plug thread or the thread that stops.
    virtual void onRemove(SesHandle session) = 0;
    // The ROM stage has failed: with the status of the ROM loader, an error code of libusbK or, if
    // no attempt failed in a system call, another code that is not 0; and a text that tells which.
    // The session's worker.
    virtual void onError(SesHandle session, std::uint32_t code, const std::string& message) = 0;
    // The ROM stage has ended and no burner image runs: for the run log, also where nobody has been
    // told of a failure, and after an interruption. The session's worker, as its last call.
    virtual void onBurnerMissing(SesHandle /*session*/, const std::string& /*reason*/) {}

  protected:
    ~UsbListener() = default;
};
