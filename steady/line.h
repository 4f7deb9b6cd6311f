// A connection's way out on the steady road. A write never waits: what the socket does not take stays where
// it is, and goes on when the keeper is told that there is room.
#pragma once

#include "steady/records.h"

extern "C" {

// Why a client gets no line.
enum {
    LINE_NO_MEMORY = -1, // or the service closes
    LINE_TOO_MANY = -2,
    LINE_TOO_MANY_OF_ADDRESS = -3
};

// NewLine makes the client's line, and counts it among the service's. 0, or one of the above (not logged).
// `ownsSocket` 1: the limits of connections hold for it, and FreeLine closes it. The keeper may end it from
// now on.
RTMP_STATUS int NewLine(SteadyService *service, RtmpClient *client, int ownsSocket);

// IsClosing tells whether the server is being destroyed: nobody gets a line any more.
bool IsClosing(SteadyService *service);

// FreeLine takes the client's line out of everything and frees it; null is nothing. The socket of a line that
// owns it is closed: whoever waits for the line finds its descriptor given back. Nobody else uses the client
// any more but the session's players list and the keeper, which it leaves here.
void FreeLine(RtmpClient *client);

// JoinPlayers adds the line to those who get the stream's messages while their client plays.
void JoinPlayers(SteadyStream *stream, SteadyLine *line);

// BeginAnew has the line go on where newcomers begin: with the last key frame of the ring, or the next one.
// `again` 0: behind "play", media time begins at 0; 1: behind an unpause it goes on. The caller holds the
// client's WriteLock.
void BeginAnew(SteadyLine *line, int again);

// NewReply makes room for an answer of `length` bytes. Null: no memory (not logged).
SteadyReply *NewReply(uint32_t length);

// QueueReply takes the answer over, and sends what the socket takes. 0; -1: the connection is ending (not
// logged). The caller holds the client's WriteLock.
RTMP_STATUS int QueueReply(SteadyLine *line, SteadyReply *reply);

// HasAllOut tells whether all answers have left, and no message is half out. The caller holds the client's
// WriteLock.
bool HasAllOut(const SteadyLine *line);

// EndPlayers ends every player's connection that the library has accepted, all at once.
void EndPlayers(SteadyStream *stream);

// How far the slowest player that makes progress is behind; 0 and 0 where there is none.
typedef struct SteadyLag {
    uint32_t Pictures;
    uint32_t Milliseconds;
    uint32_t Playing; // players
} SteadyLag;
SteadyLag LagOf(SteadyStream *stream);
}
