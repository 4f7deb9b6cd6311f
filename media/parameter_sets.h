// SPS and PPS in Annex B configuration data (ITU-T H.264, Annex B). Only 4-byte start codes count.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// They return the NAL unit inside `data`, its header byte first, and its length; null when there is none
// (logged).
const uint8_t *ExtractSpsHeader(RtmpSession *session, const uint8_t *data, int32_t len, uint32_t *spsLen);
const uint8_t *ExtractPpsHeader(RtmpSession *session, const uint8_t *data, int32_t len, uint32_t *ppsLen);
}
