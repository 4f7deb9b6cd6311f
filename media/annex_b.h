// Parameter sets in any Annex B form (ITU-T H.264, B.1): the second way to find them, beside
// media/parameter_sets.h, for servers with RTMP_PLAYERS_DESCRIPTION.
#pragma once

#include <stdint.h>

extern "C" {

typedef struct ParameterSetPair {
    const uint8_t *Sps; // NAL header byte first
    uint32_t SpsLen;
    const uint8_t *Pps;
    uint32_t PpsLen;
} ParameterSetPair;

// FindParameterSets finds the first SPS and the first PPS inside `data`: behind start codes of three or four
// bytes, up to the next one or to the end, zero bytes in front of that left out. False when one of them is
// missing, or longer than the sequence header can say; nothing is logged.
bool FindParameterSets(const uint8_t *data, uint32_t length, ParameterSetPair *out);

// JoinParameterSets returns 00 00 00 01 SPS 00 00 00 01 PPS 00 00 00 01, to be freed. Null without memory.
uint8_t *JoinParameterSets(const ParameterSetPair *sets, uint32_t *length);
}
