// An access unit as hosts hand it over: NAL units, each behind a 4-byte length (ISO/IEC 14496-15, 5.3.4.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// HasIdrSlice tells whether any NAL unit of the access unit is a slice of an IDR picture (ITU-T
// H.264, 7.4.1): decoding can begin here. Lengths that run beyond the end are cut there. It looks at one byte
// of each NAL unit, whatever its length.
int HasIdrSlice(const uint8_t *data, int32_t length);
}
