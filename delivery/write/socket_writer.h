// Writing the pieces of one message to one client's socket, whole. The caller holds the client's WriteLock.
#pragma once

#include "delivery/write/pieces.h"
#include "rtmpcast/types.h"

extern "C" {

// SendMessage writes `count` pieces, with a one-byte continuation header (`message`'s chunk stream id behind
// the bits 11) in front of each that starts a chunk. 0; -1 (logged).
//
// `moreFollows`: the rest of the message, or a message that may share a packet with this one, is about to be
// written; the kernel may wait for it.
RTMP_STATUS int SendMessage(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                            const RtmpSendPkt *message, bool moreFollows);

// SendFile writes pieces that lie in `fd`, whose offset 0 is mapped at `mapBase`, without copying them. Plain
// TCP only. 0; -1 (logged).
RTMP_STATUS int SendFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                         const RtmpSendPkt *message, int fd, uint64_t mapBase);
}
