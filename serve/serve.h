#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ServeRtmpClient is the body of a client's serve thread; its argument is the RtmpClient, which it destroys.
// The starter has taken a hold of the server (HoldServer) that the thread releases.
void *ServeRtmpClient(void *argument);

// ServeClientForError sends the replies that belong to a refused request of kind `kind`.
void ServeClientForError(RtmpClient *client, RtmpRecvPkt *pkt, int code, uint32_t kind);
}
