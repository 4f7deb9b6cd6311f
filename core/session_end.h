// The first half of RtmpSessionDestroy: nobody uses the session any more.
#pragma once

#include "net/log_line.h"
#include "rtmpcast/types.h"

extern "C" {

// StopFrames returns when nobody sends frames of the session any more, and none begins until AllowFrames
// (state/frame_under_way.h). The host's thread is waited for until it has left RtmpSendData, and the sender
// thread is ended; the threaded sender itself stays as it is.
void StopFrames(RtmpSession *session);

// EndClients ends the serve threads of all clients. No text, or that of what failed, with its code. The
// caller holds LiveSessionListLock, so that nobody joins.
LogText EndClients(RtmpSession *session, int *code);
}
