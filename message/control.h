// Protocol control and user control messages (RTMP 1.0, 5.4 and 6.2), all on chunk stream 2.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AnnouncedChunkSize returns what set chunk size (43) announces.
uint32_t AnnouncedChunkSize(const RtmpServer *server);

// GenerateProtoCtrlMsgRes makes kinds 43 to 47. Set chunk size (43) also makes the announced size the one by
// which the server cuts messages from now on. Null (logged).
RtmpSendPkt *GenerateProtoCtrlMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);

// GenerateUsrCtrlMsgRes makes kinds 36 to 42; only stream begin (36) and ping response (42) have a payload.
// A ping response needs the ping request as `recvPkt`. Null (logged).
RtmpSendPkt *GenerateUsrCtrlMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
}
