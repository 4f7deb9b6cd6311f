// Received user control messages (RTMP 1.0, 6.2 and 7.1.7).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ParseUsrCtrlMsgReq records an event in its packet, reports its kind (left alone for events that are
// ignored), and answers a ping of a client that has a session. 0; -1 (logged).
RTMP_STATUS int ParseUsrCtrlMsgReq(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *msgKind);
}
