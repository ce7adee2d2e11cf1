#include "pages/burnend.h"

#include "utils/logutil.h"

#define LOG_TAG "BurnEnd"

void logBurnEnd(const BurnEnd& end) {
    const std::string number = end.sn.empty() ? "no number" : "SN=" + end.sn;
    if (end.good)
        LOG_I("burned: %s, %s", end.place.c_str(), number.c_str());
    else
        LOG_E("not burned: %s, %s: %s", end.place.c_str(), number.c_str(), end.reason.c_str());
}
