// The sequence parameter set as ITU-T H.264, 7.3.2.1.1 has it, up to the cropping: the second reader beside
// media/sps.h, for onMetaData and the AVC decoder configuration record of RTMP_PLAYERS_DESCRIPTION.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef struct SequenceParameters {
    uint32_t ChromaFormatIdc; // 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4
    uint32_t BitDepthLumaMinus8;
    uint32_t BitDepthChromaMinus8;
    uint32_t Width; // pixels that are shown, cropping subtracted
    uint32_t Height;
} SequenceParameters;

// HasChromaFormat tells whether the parameter sets of a profile name chroma format and bit depths. Those of
// the others are 4:2:0 with 8 bits.
bool HasChromaFormat(uint32_t profileIdc);

// ReadSequenceParameters reads an SPS that starts with its NAL header byte. -1: it is cut short, or holds
// what the standard rules out; `out` is as it was, and nothing is logged.
RTMP_STATUS int ReadSequenceParameters(const uint8_t *sps, uint32_t spsLen, SequenceParameters *out);
}
