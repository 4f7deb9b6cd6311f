// Command replies and status messages (RTMP 1.0, 7.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// GenerateCmdMsgRes makes kinds 2, 4, 9 to 16 and 23. Kinds 2, 4 and 11 answer the command in `recvPkt`, on
// its chunk stream; 2 and 4 echo its transaction id. createStream's reply (4) takes the client's next stream
// id, and NetStream.Play.Reset (12) moves the client to its next status chunk stream. Null (logged).
RtmpSendPkt *GenerateCmdMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
}
