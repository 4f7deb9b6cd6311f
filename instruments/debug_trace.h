// The CSV trace of a threaded sender, and the two burn-in texts.
//
// Columns: ms since the first frame, measured kbit/s, target kbit/s, 0, frames queued, frames dropped, ms
// that the frame took to send.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// RtmpQueueDebugCreate makes the record; nothing is opened yet. `directory` is copied, 1023 bytes at most.
// Null: no memory (not logged).
RtmpQueueDebug *RtmpQueueDebugCreate(uint8_t burninEnable, uint8_t logEnable, const char *directory,
                                     uint32_t logEvery);

// RtmpQueueDebugReset closes the file and forgets counters and times; the settings stay. The sender thread
// has ended. 0; 1 null.
int RtmpQueueDebugReset(RtmpQueueDebug *debug);
void RtmpQueueDebugDestroy(RtmpQueueDebug *debug); // null is fine

// RtmpQueueDebugInit starts the trace at `timestamp` (ms, host's clock) in a new file
// "<directory>/debug-<time>.csv". Where it cannot be made nothing is written, and nobody is told. 0; 1 null.
// The producer.
int RtmpQueueDebugInit(RtmpQueueDebug *debug, uint64_t timestamp);

// RtmpQueueDebugUpdate notes the time of a frame. 0; 1 null. The producer.
int RtmpQueueDebugUpdate(RtmpQueueDebug *debug, void *session, uint64_t timestamp);

// RtmpQueueDebugBurnin makes the burn-in texts: seconds, `rate` (kbit/s) and `bitrate` (bit/s) when the rate
// is above 0; `queued`, dropped and reserved when `queued` is not negative. 0; 1 null. The producer.
int RtmpQueueDebugBurnin(RtmpQueueDebug *debug, void *session, int32_t queued, int32_t rate, int32_t bitrate);

// RtmpQueueDebugLog writes a line every LogEvery video frames. `start`, `end`: around the sending. 0; 1 no
// record. The sender thread.
int RtmpQueueDebugLog(RtmpThreadedQueue *queue, uint64_t lastVideoTs, int32_t queued, RtmpQueueTime start,
                      RtmpQueueTime end);
}
