// The threaded sender's producer side: frames go into rings, and the host's encoder follows the network.
//
// Everything here runs on the host's thread that calls RtmpSendData, settings and destruction excepted, and
// takes no lock that is held while anything is sent.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// ResetThreadedQueue and CloseThreadedQueue do the work of RtmpThreadedQueueReset and RtmpThreadedQueueClose
// (rtmpcast/sender.h). 0.
int ResetThreadedQueue(RtmpSession *session);
int CloseThreadedQueue(RtmpSession *session);

// RtmpThreadedQueueInit makes the session's queue. A session that has one keeps it. 0; -1 no memory (logged).
RTMP_STATUS int RtmpThreadedQueueInit(RtmpSession *session, uint32_t audioQueueSize, uint32_t videoQueueSize);

// RtmpThreadedQueueBWMInit, -DebugInit and -AdaptiveBitrateInit hang a companion on the queue, in place of an
// earlier one; a running sender thread is ended first. `enable` 0, or a session without a queue: nothing is
// done. 0; -1 no memory (logged).
RTMP_STATUS int RtmpThreadedQueueBWMInit(RtmpSession *session, uint32_t enable, uint32_t windowSize);
RTMP_STATUS int RtmpThreadedQueueDebugInit(RtmpSession *session, uint32_t enable, uint8_t burninEnable,
                                           uint8_t logEnable, const char *directory, uint32_t logEvery);
RTMP_STATUS int RtmpThreadedQueueAdaptiveBitrateInit(RtmpSession *session, uint32_t enable,
                                                     uint32_t minBitrate, uint32_t startDelayMs,
                                                     uint32_t increaseFullness, uint32_t increasePercent,
                                                     uint32_t increaseMinStep, uint32_t increaseIntervalSec,
                                                     uint32_t decreaseFullness, uint32_t decreasePercent,
                                                     uint32_t decreaseFullnessHigh,
                                                     uint32_t decreasePercentHigh,
                                                     uint32_t decreaseIntervalSec, uint32_t spare);

// RtmpThreadedQueueSendData queues a frame when the session's first client is playing, and starts the sender
// thread where there is none. 0 queued, or dropped; -1 no queue, no memory or no thread (the last two
// logged).
RTMP_STATUS int RtmpThreadedQueueSendData(RtmpSession *session, const uint8_t *data, int32_t length,
                                          int32_t fd, uint64_t mapBase, uint64_t timestamp,
                                          int64_t mediaType);

// RtmpThreadedQueueStop ends the sender thread, if there is one. Queue and frames stay; the next frame starts
// another thread.
void RtmpThreadedQueueStop(RtmpSession *session);

// RtmpThreadedQueueDestroy ends the sender thread and frees the queue with all that hangs on it. 0.
int RtmpThreadedQueueDestroy(RtmpSession *session);
}
