// Waking a client's serve thread out of a read or write that blocks. Nothing is sent to the peer: the call
// fails as an interrupted one does, and the thread looks around.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// SignalClient sends SIGUSR1 to the client's serve thread, once it has stored its handle. The caller holds
// the session's MemberLock: a member's thread has not ended yet, so its handle is good.
void SignalClient(const RtmpClient *client);

// SignalMembers does so for every client of the session, and takes MemberLock for it.
void SignalMembers(RtmpSession *session);
}
