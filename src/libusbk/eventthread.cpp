#include "libusbk/eventthread.h"

#include <sys/time.h>

#include <chrono>

#include "utils/trace.h"

namespace libusbk {

EventThread::EventThread(libusb_context* context)
    : context_(context), thread_(&EventThread::run, this) {}

EventThread::~EventThread() {
    stopping_ = true;
    libusb_interrupt_event_handler(context_);
    thread_.join();
}

void EventThread::run() {
    while (!stopping_) {
        timeval limit{60, 0};
        const int result = libusb_handle_events_timeout_completed(context_, &limit, nullptr);
        if (result != 0 && result != LIBUSB_ERROR_INTERRUPTED) {
            TRACE("USB events cannot be handled (%s)\n", libusb_error_name(result));
            // Whatever is wrong may last: look again soon, but do not spin.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
}

}  // namespace libusbk
