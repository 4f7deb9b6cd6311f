// Writing the pieces of one message to one client's socket, whole. The caller holds the client's WriteLock.
#pragma once

#include "delivery/write/pieces.h"
#include "rtmpcast/types.h"

extern "C" {

// How far the last message on a client's socket is (RtmpClient.MessageState).
//
// A message of which some bytes are out and the rest will never be cannot be mended: the peer would take what
// comes next for the rest. So whoever leaves one in the middle, because a write failed, a signal struck or
// the thread was cancelled, shuts the socket down, and the player's serve thread sees the end. A message of
// which nothing is out is just missed.
enum RtmpMessageState {
    MESSAGE_WHOLE = 0, // it is out; or there was none yet
    MESSAGE_OPEN = 1,  // some bytes are out, not all
    MESSAGE_CUT = 2    // and the rest never will be: the socket has been shut down
};

// What is about to be written behind the pieces. The kernel may wait for it, to put both into one packet.
enum RtmpFollowing { NOTHING_FOLLOWS = 0, MESSAGE_FOLLOWS = 1, REST_FOLLOWS = 2 };

// SendMessage writes `count` pieces, with a continuation header in front of each that starts a chunk: one
// byte
// (`message`'s chunk stream id behind the bits 11) or, for players of RTMP_PLAYERS_CHUNKS_OUT, a whole one.
// 0; -1 (logged).
//
// `following`: REST_FOLLOWS leaves the message open for SendFile, which the caller calls next.
RTMP_STATUS int SendMessage(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                            const RtmpSendPkt *message, enum RtmpFollowing following);

// SendFile writes pieces that lie in `fd`, whose offset 0 is mapped at `mapBase`, without copying them. They
// are the rest of a message. Plain TCP only. 0; -1 (logged).
RTMP_STATUS int SendFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                         const RtmpSendPkt *message, int fd, uint64_t mapBase);
}
