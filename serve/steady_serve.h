// Serving a connection of the steady road.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ServeSteadily is the body of a connection's thread; its argument is the RtmpClient, which it destroys.
void *ServeSteadily(void *argument);
}
