// What the run log tells of the end of a burn. The same line on both roads.
#pragma once

#include "storage/productionrecord.h"

// At level I a good burn, at E a failed one. Any thread.
void logBurnEnd(const BurnEnd& end);
