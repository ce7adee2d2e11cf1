// How a BurnAgent reports. Its operations run on the agent's thread; the agent passes itself so
// that the listener can ask for the device id and the serial number.
#pragma once

#include <string>

#include "vorlan/firmware/burnitem.h"

class BurnAgent;

class BurnListener {
  public:
    // The first SYNC has succeeded; no image has been sent yet.
    virtual void onBurnStart(BurnAgent* agent) = 0;
    // Progress of a write from memory: the serial number. `name` is its tag, "SN=" and the number.
    virtual void onBurnProgress(BurnAgent* agent, const std::string& name, unsigned percent) = 0;
    // Progress of the write of an image.
    virtual void onItemProgress(BurnAgent* agent, const BurnItem* item, unsigned percent) = 0;
    // The device has confirmed every image and its serial number.
    virtual void onBurnDone(BurnAgent* agent) = 0;
    // The burn could not begin (-1 no device, -2 no SYNC) or an image file cannot be opened (-3). A
    // command that fails on an open device is not reported here: is_done() then stays false.
    virtual void onBurnError(BurnAgent* agent, int code, const std::string& message) = 0;

  protected:
    ~BurnListener() = default;
};
