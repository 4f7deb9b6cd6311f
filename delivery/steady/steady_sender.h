// The steady road of a session's frames: finished once, ordered by the host's clock, and written to every
// player without waiting for any. In sender mode 1 a thread of the session writes, in the others the thread
// that calls RtmpSendData.
#pragma once

#include "steady/records.h"

extern "C" {

// NewSteadySender and FreeSteadySender: the stream's sender. -1: no memory (not logged).
RTMP_STATUS int NewSteadySender(SteadyStream *stream);
void FreeSteadySender(SteadyStream *stream);

// SendDataSteadily does the work of RtmpSendData. 0; RTMP_ERR_NO_CLIENT: nobody is connected, and the frame
// is kept for who joins; -1: no memory, or no thread (logged).
RTMP_STATUS int SendDataSteadily(RtmpSession *session, const uint8_t *data, int32_t length,
                                 uint64_t timestamp, uint32_t mediaType);

// StopSteadySender ends the thread that writes, if there is one; the next frame starts another. No frame is
// under way.
void StopSteadySender(SteadyStream *stream);

// ResetSteadySender does the work of RtmpThreadedQueueReset: what waits is dropped, and all timing forgotten.
// With `closed` that of RtmpThreadedQueueClose: frames are dropped until the next reset.
void ResetSteadySender(SteadyStream *stream, int closed);
}
