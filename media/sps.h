// The sequence parameter set (ITU-T H.264, 7.3.2.1.1) as far as the picture size.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ParseSPSHeader fills height, width, profileIdc, constraintFlags and levelIdc and nothing else; a cut SPS
// yields zero or partial values. `sps` starts with the NAL header byte.
void ParseSPSHeader(const uint8_t *sps, uint32_t spsLen, VdCodecInfo *out);
}
