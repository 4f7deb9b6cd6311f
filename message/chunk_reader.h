// The incoming chunk stream (RTMP 1.0, 5.3): ReadRtmpMessage of publish.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client);
}
