#pragma once

#include "rtmpcast/types.h"

extern "C" {

// SendMsgToConnectedClients sends one frame to every client of the session that is playing. The caller holds
// the server's session list lock.
//
// `timestampDelta`: ms since the previous frame of the same kind (RTMP_MSG_VIDEO, RTMP_MSG_AUDIO).
// 0; -1 the frame could not be prepared, or at least one client missed it (logged).
RTMP_STATUS int SendMsgToConnectedClients(RtmpSession *session, const uint8_t *data, int32_t length,
                                          int32_t fd, uint64_t mapBase, uint64_t timestampDelta,
                                          uint32_t kind);
}
