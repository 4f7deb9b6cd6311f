// The AMF0 value list: lookups and ownership. Its functions are in publish.h.
#pragma once

#include "rtmpcast/publish.h"
