// How much a client of the steady road may have the library keep of what it sends: RtmpServiceLimits.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// MayBegin tells whether the client may begin a message of `length` bytes on a chunk stream. One that may not
// is ended. On the default road everybody may. Called by the thread that serves the client.
bool MayBegin(RtmpClient *client, uint32_t chunkStreamId, uint32_t length);
}
