// A message to one client that takes the steady road: it takes its place among what waits for the socket.
#pragma once

#include "delivery/write/pieces.h"
#include "steady/records.h"

extern "C" {

// PutOnLine copies the pieces, with a continuation header in front of each further chunk, and sends what the
// socket takes. 0; -1: no memory, or the connection is ending. The caller holds the client's WriteLock.
RTMP_STATUS int PutOnLine(SteadyLine *line, const RtmpPiece *pieces, uint32_t count,
                          const uint8_t *continuation, uint32_t continuationLength);
}
