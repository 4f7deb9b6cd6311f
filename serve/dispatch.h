// One received message, handled by its RTMP message type (RTMP 1.0, 5.4, 6.2 and 7.1).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int ParseRequestMsg(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind);
}
