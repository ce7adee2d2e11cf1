// The thread that runs libusb's events: it completes transfers and takes note of devices that
// arrive or leave. It calls nobody outside the library, so nothing ever holds it up.
#pragma once

#include <libusb.h>

#include <atomic>
#include <thread>

namespace libusbk {

class EventThread {
  public:
    explicit EventThread(libusb_context* context);
    ~EventThread();
    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

  private:
    void run();

    libusb_context* context_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace libusbk
