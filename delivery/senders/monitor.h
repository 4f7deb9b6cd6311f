// The packet monitor: frames leave on the host's thread, audio in front of the video it precedes.
//
// Everything here runs on the host's threads, one call at a time per session. The RingLock of a monitor
// guards its parked audio, statistics and settings against the last client, which clears them on its serve
// thread; it is a leaf, but rtmpStatusMessage is called with it held.
#pragma once

#include "instruments/monitor_records.h"

extern "C" {

// RtmpMonitorInit gives the session a monitor. 0; -1 no memory, or no encoder handle: the monitor then works
// all the same (both logged).
RTMP_STATUS int RtmpMonitorInit(RtmpSession *session, uint32_t encoderHandle, uint32_t withStats);

// RtmpQueueInit makes a monitor, with statistics when `withStats` is not 0. Null: no memory (logged).
RtmpMonitor *RtmpQueueInit(RtmpSession *session, uint32_t withStats);

// RtmpMonitorSendData parks an audio frame, or sends a video frame behind the audio that is due. It holds the
// server's session list lock for a video frame, and blocks as long as a player takes nothing. 0, also for an
// audio frame that was lost (logged); -1 some player missed the video frame; RTMP_ERR_LOCK: the session list
// lock could not be taken, and nothing was sent, or not be released (all logged).
RTMP_STATUS int RtmpMonitorSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                                    uint64_t mapBase, uint64_t timestamp, int64_t mediaType);

// These two store settings that nothing evaluates, in place of earlier ones. 0, also without a monitor or
// when `enable` is 0; -1 no memory (logged). They take the RingLock.
RTMP_STATUS int RtmpMonitorDebugInit(RtmpSession *session, uint32_t enable, uint8_t burninEnable,
                                     uint8_t logEnable, const char *directory, uint32_t logEvery);
RTMP_STATUS int RtmpMonitorAdaptiveBitrateInit(RtmpSession *session, uint32_t enable, uint32_t reserved1,
                                               uint32_t reserved2, uint32_t minBitrate,
                                               uint32_t increaseFullness, uint32_t increasePercent,
                                               uint32_t increaseMinStep, uint32_t increaseIntervalSec,
                                               uint32_t decreaseFullness, uint32_t decreasePercent,
                                               uint32_t decreaseFullnessHigh, uint32_t decreasePercentHigh,
                                               uint32_t decreaseIntervalSec, uint32_t spare);

// RtmpMonitorDestroy frees the monitor, which no other thread may be using. Always 0.
int RtmpMonitorDestroy(RtmpSession *session);
}
