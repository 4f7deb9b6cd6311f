// The end of a connection on the steady road, and the time that its peer has.
#pragma once

#include "steady/records.h"

// MillisecondsSince is 0 where `then` came after the caller looked at the clock, as it may on another thread.
inline uint64_t MillisecondsSince(uint64_t then, uint64_t now)
{
    return now > then ? now - then : 0;
}

extern "C" {

// SetDeadline gives the peer `milliseconds` from now for `wait`; 0 takes the deadline away.
void SetDeadline(SteadyLine *line, enum SteadyWait wait, uint32_t milliseconds);

// EndLine ends the connection: its socket is shut down, its thread reads nothing more and leaves. Only the
// first reason counts, but that a refused one (STEADY_END_REFUSED), which is left to its own thread to see
// its answers out, may be ended for another. The caller holds SteadyService.Lock, PlayersLock of the stream
// that the line has joined or the client's WriteLock, or is the thread that serves the client.
void EndLine(SteadyLine *line, enum SteadyEnd reason);

// HasFailed tells whether the library has ended the connection for what happened on it: not because its
// session or its server is being destroyed.
bool HasFailed(const SteadyLine *line);

// EndTls gives the client's TLS handle, if there is one, back to the host. What is due has been sent, or
// never will be. Called by the thread that serves the client, which holds no lock.
void EndTls(RtmpClient *client);

// CloseLine closes the connection, once; nobody but the thread that serves the client, which calls it, finds
// the line any more. It holds no lock.
void CloseLine(RtmpClient *client);
}
