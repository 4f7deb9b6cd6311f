// Command replies and status messages (RTMP 1.0, 7.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// GenerateCmdMsgRes makes kinds 2, 4, 9 to 16, 23 and 55 to 57. Kinds 2, 4, 11 and 57 answer the command in
// `recvPkt`, on its chunk stream; 2, 4 and 57 echo its transaction id, and 57 names the property for which a
// "connect" was refused. Seek's notice (55) and publish's refusal (56) go to its message stream.
// createStream's reply (4) takes the client's next stream id, and NetStream.Play.Reset (12) moves the client
// to its next status chunk stream. Null (logged).
RtmpSendPkt *GenerateCmdMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
}
