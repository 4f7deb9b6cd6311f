// The sender thread of a session: it drains the rings, puts audio in front of the video it precedes, and
// sends. One frame at a time, for as long as sending works.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// RtmpSenderThread is the thread's body; its argument is the RtmpThreadedQueue. It ends when it is cancelled
// or a send failed; then the queue is closed. However it ends, it holds no lock, everything it owned is
// reachable from the rings, and ThreadRunning is 0.
void *RtmpSenderThread(void *argument);
}
