// AMF0 data messages (RTMP 1.0, 7.1.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// GenerateRtmpDataMsg makes kinds 48 to 50. The body of onMetaData (49) stays the session's. Null (logged).
RtmpSendPkt *GenerateRtmpDataMsg(RtmpClient *client, void *recvPkt, uint32_t msgKind);
}
