#include "simulator/virtualusbbus.h"

#include "wirehost.h"
