// What a player's message is answered, and the state it moves the client to.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int ProcessSend(RtmpClient *client, RtmpRecvPkt *request, uint32_t kind);
}
