// Chunk headers as RTMP 1.0, 5.3.1 has them, for players of RTMP_PLAYERS_CHUNKS_OUT: each message is told
// from the one before it on its chunk stream. What the library does by default is in chunk_header.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

enum { RTMP_BASIC_HDR_MAX = 3, RTMP_SEPARATOR_MAX = RTMP_BASIC_HDR_MAX + 4 };

// DecideStandardHdrType picks the shortest header (0 to 3) that tells `next` from `last`, the message before
// it on its chunk stream, and fills its delta. `last` then describes `next`, and is marked as unsent until
// the caller stores the type in its HdrType: a message that does not get out is followed by a full header.
// Null, or `next` itself: 0.
int DecideStandardHdrType(RtmpSendPkt *next, RtmpSendPkt *last);

// PutStandardBasicHdr writes a basic header for a chunk stream id from 2 to 65599 and returns its length.
uint32_t PutStandardBasicHdr(uint8_t out[RTMP_BASIC_HDR_MAX], uint32_t hdrType, uint32_t chunkStreamId);

// PutStandardSeparator writes what stands in front of each further chunk of a message: a whole basic header
// and, when the message's own header has an extended timestamp, that again. It returns the length.
uint32_t PutStandardSeparator(uint8_t out[RTMP_SEPARATOR_MAX], const RtmpSendPkt *message);
}
