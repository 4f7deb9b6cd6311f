// Received AMF0 commands (RTMP 1.0, 7.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ParseCmdMsgReq decodes a command, checks and records what it carries and reports its kind. The decoded
// values are attached to the packet. 0; -1 (logged); RTMP_ERR_STREAM_NOT_FOUND.
RTMP_STATUS int ParseCmdMsgReq(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *msgKind);
}
