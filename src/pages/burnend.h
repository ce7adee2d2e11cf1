// How a burn ended, for whoever asks the run log later. The same line on both roads.
#pragma once

#include <string>

struct BurnEnd {
    std::string place;    // the device's id, or the port's name
    bool good = false;    // every image and the number are in the device
    std::string outcome;  // in a failure: what went wrong
    std::string sn;       // the number that was drawn for the device; empty if there was none
};

// At level I a good burn, at E a failed one. Any thread.
void logBurnEnd(const BurnEnd& end);
