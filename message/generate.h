// A message of any kind, built by the generator of that kind.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpSendPkt *GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);
}
