// The host's thread that is in RtmpSendData, known for as long as it is: whoever destroys the session waits
// for its end. It may be stuck in a write to a player that takes nothing, with the list of all sessions in
// its hands.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// BeginFrame notes the calling thread. 0; -1: the session is being destroyed, and EndFrame is not called.
RTMP_STATUS int BeginFrame(RtmpSession *session);

// EndFrame is the last that the thread does with the session.
void EndFrame(RtmpSession *session);

// RefuseFrames: no frame begins from now on. AllowFrames takes it back, when the session stays after all.
void RefuseFrames(RtmpSession *session);
void AllowFrames(RtmpSession *session);

// PressFrame returns whether a frame of another thread is still under way, after one slice of waiting for its
// end. The thread is signalled; once the caller has waited for SLICES_OF_SIGNALS, stuck writes are shut too.
bool PressFrame(RtmpSession *session, int slices);
}
