// The incoming chunk stream as RTMP 1.0, 5.3 has it, for connections that allow it (RTMP_PLAYERS_CHUNKS_IN).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ReadStandardChunk reads one chunk and returns its message, as ReadRtmpMessage does. Null: the connection is
// over, or no memory (logged as `who`).
RtmpRecvPkt *ReadStandardChunk(RtmpClient *client, const char *who);
}
