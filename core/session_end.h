// The first half of RtmpSessionDestroy: everybody out who uses the session.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// StopFrames returns when nobody sends frames of the session any more, and none begins until AllowFrames
// (state/frame_under_way.h). The host's thread is seen out of RtmpSendData, and the sender thread is ended;
// the threaded sender itself stays as it is.
void StopFrames(RtmpSession *session);

// EndClients ends the serve threads of all clients. Null, or the text of what failed, with its code. The
// caller holds LiveSessionListLock, so that nobody joins.
const char *EndClients(RtmpSession *session, int *code);
}
