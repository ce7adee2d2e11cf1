#include "simulator/fault.h"

#include "wirehost.h"
