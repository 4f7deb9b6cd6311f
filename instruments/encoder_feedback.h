// What follows each frame of a session in sender mode 1: trace, controller and warnings are fed by how many
// pictures have not left yet. The thread that calls RtmpSendData.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// TraceFrame notes the time of a frame, and starts the trace with the first one.
void TraceFrame(RtmpThreadedQueue *queue, uint64_t timestamp);

// FollowVideo runs the controller behind a picture, or, without one, warns the host of congestion. `queued`:
// pictures that wait, against the slots of the video ring. `isFull`: there is no room for another.
void FollowVideo(RtmpThreadedQueue *queue, int32_t queued, bool isFull, uint64_t timestamp);

// ResetInstruments forgets all measurements and targets; the settings stay.
void ResetInstruments(RtmpThreadedQueue *queue);
}
