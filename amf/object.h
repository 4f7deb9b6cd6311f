// The AMF0 value list: lookups and ownership. Its functions are in publish.h.
#pragma once

#include "rtmpcast/publish.h"

#include <math.h>

extern "C" {

// FreeAmfProps frees a chain of properties and the objects nested in it, without recursion. Nested lists of
// more than `longest` values are left alone.
void FreeAmfProps(AmfObjProperty *first, uint8_t freeStrings, int32_t longest);
}

// WholeNumber truncates a number of the wire towards zero. What does not fit becomes the nearest limit, NaN
// becomes 0.
inline int32_t WholeNumber(double number)
{
    if (isnan(number)) {
        return 0;
    }
    if (number >= INT32_MAX) {
        return INT32_MAX;
    }
    return number <= INT32_MIN ? INT32_MIN : static_cast<int32_t>(number);
}
