// Making the threads that serve a session's clients leave what they wait in.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// EndReading makes what the client's thread reads fail as an interrupted read does, the read that is under
// way and every later one. It cannot be missed and needs no signal handler, and the peer sees nothing of it.
// The caller holds the session's MemberLock. A client that is no member is left alone: nothing keeps the
// number of its socket from being reused.
void EndReading(RtmpClient *client);

// SignalClient sends SIGUSR1 to the client's serve thread, once it has stored its handle: a write that blocks
// fails then. One that comes between two calls interrupts nothing. The caller holds the session's
// MemberLock: a member's thread has not ended yet, so its handle is good.
void SignalClient(const RtmpClient *client);

// SignalMembers does so for every client of the session, and takes MemberLock for it.
void SignalMembers(RtmpSession *session);

// How many slices (RTMP_WAIT_SLICE_MS) a signal has to work. A host's handler may let calls go on, or the
// signal may be blocked: then ShutStuckWrites ends them.
enum { SLICES_OF_SIGNALS = 100 };

// ShutStuckWrites shuts the socket of every client of the session that somebody is writing to. It takes
// MemberLock.
void ShutStuckWrites(RtmpSession *session);
}
