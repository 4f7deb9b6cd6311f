// The one door to the message generators: by kind, to the room that builds it.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpSendPkt *GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);
}
