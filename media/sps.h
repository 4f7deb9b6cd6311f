// The sequence parameter set (ITU-T H.264, 7.3.2.1.1) as far as the picture size.
#pragma once

#include "media/bit_reader.h"
#include "rtmpcast/types.h"

extern "C" {

// ParseSPSHeader fills height, width, profileIdc, constraintFlags and levelIdc; a cut SPS yields zero or
// partial values. Cropping is not applied.
void ParseSPSHeader(const uint8_t *sps, uint32_t spsLen, VdCodecInfo *out);

void DecodeScalingList(BitStructure *bits, uint8_t *list, int32_t size, const uint8_t *defaultList,
                       const uint8_t *fallbackList);
void DecodeScalingMatrices(BitStructure *bits, uint8_t *lists4x4, uint8_t *lists8x8);
}
