// The rate at which video leaves, over a sliding window of frames, reported to the host.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// RtmpQueueBWMCreate makes a monitor over the last `windowSize` frames. Null: no memory, or a window of more
// than a million frames (not logged). A window of 0 measures nothing.
RtmpQueueBWM *RtmpQueueBWMCreate(uint32_t windowSize);
void RtmpQueueBWMDestroy(RtmpQueueBWM *monitor); // null is fine

// RtmpQueueBWMReset forgets all samples, results and report times. 0; 1 null.
int RtmpQueueBWMReset(RtmpQueueBWM *monitor);
int RtmpQueueBWMItemReset(RtmpQueueBWMItem *sample); // 0; 1 null

// RtmpQueueBWMAdd takes a frame of `bytes` bytes that has just been sent, and reports "rtmpBandwidth" every
// two seconds and "rtmpUptime" every thirty. 0; 1 null. The sender thread.
int RtmpQueueBWMAdd(RtmpQueueBWM *monitor, void *hostContext, uint32_t bytes);

// AddBandwidthSampleAt is RtmpQueueBWMAdd at a given time.
int AddBandwidthSampleAt(RtmpQueueBWM *monitor, void *hostContext, uint32_t bytes, RtmpQueueTime now);

// RtmpQueueBWMKbps returns the last result; `none` without a monitor. Any thread.
int32_t RtmpQueueBWMKbps(const RtmpQueueBWM *monitor, int32_t none);

// WallClock returns the time of day; MillisecondsBetween the whole milliseconds from one time to another.
RtmpQueueTime WallClock(void);
int64_t MillisecondsBetween(RtmpQueueTime from, RtmpQueueTime to);
}
