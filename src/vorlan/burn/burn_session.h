// The record of one connected USB device, from its arrival to its removal.
#pragma once

#include <atomic>
#include <cstdint>
#include <semaphore>
#include <string>
#include <thread>

#include "platform/libusbk.h"

// Made by BurnAdmin at the device's arrival and freed by it after the removal, once the worker has
// been joined. The handle and the pool belong to the worker from its start to its end.
struct BURN_SESSION {
    std::string device_path;
    std::string device_id;  // the key of the session
    std::int32_t bus_no = 0;
    std::int32_t device_address = 0;
    libusbk::UsbHandle* usbHandle = nullptr;     // of the ROM stage; null once that has ended
    libusbk::OverlappedPool* ovlPool = nullptr;  // one slot for the ROM stage; null likewise
    std::binary_semaphore entered{0};            // released when the session is in the table
    std::atomic<bool> workerEnded = false;
    bool endedByForce = false;  // the worker still ran when it was interrupted
    std::jthread worker;        // last member: it is joined before the others go
};

using SesHandle = BURN_SESSION*;
