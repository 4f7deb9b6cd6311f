#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ServeRtmpClient is the body of a client's serve thread; its argument is the RtmpClient, which it destroys.
// The server must not be destroyed before the thread runs; from then on the thread holds it.
void *ServeRtmpClient(void *argument);

// ServeAcceptedClient is the same for the accept thread, which has taken the hold (HoldServer) that the
// thread gives back: it may end, and the server go, before the new thread has run.
void *ServeAcceptedClient(void *argument);

// ReadWholeMessage reads chunks until one completes its message, and acknowledges what has come. `stored`:
// the receive list owns the packet. Null: the connection is over (logged).
RtmpRecvPkt *ReadWholeMessage(RtmpClient *client, bool *stored);

// LetGoOfMessage frees what nobody needs of a message that has been handled.
void LetGoOfMessage(RtmpClient *client, RtmpRecvPkt *pkt, bool stored);

// What one round of a serve loop leads to.
enum Round {
    ROUND_AGAIN,
    ROUND_ERROR,   // the connection is over: read or handshake failed
    ROUND_DELETED, // the player sent deleteStream
    ROUND_CLOSED,  // somebody else closed the client
};

// ServeRound does what the client's state asks for: the handshake, or one message, which it reads and
// answers.
enum Round ServeRound(RtmpClient *client);

// ServeClientForError sends the replies that belong to a refused request of kind `kind`.
void ServeClientForError(RtmpClient *client, RtmpRecvPkt *pkt, int code, uint32_t kind);
}
