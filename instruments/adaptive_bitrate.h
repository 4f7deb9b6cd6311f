// The controller that steers the encoder's bitrate from the video ring's fullness and the measured rate.
#pragma once

#include "instruments/queue_records.h"

extern "C" {

// RtmpQueueAdaptiveBitrateCreate makes a controller, not initialised yet. Parameters of 0 get their
// defaults. Null: no memory (not logged).
RtmpQueueAdaptiveBitrate *
RtmpQueueAdaptiveBitrateCreate(RtmpLogger *logger, uint32_t minBitrate, uint32_t startDelayMs,
                               uint32_t increaseFullness, uint32_t increasePercent, uint32_t increaseMinStep,
                               uint32_t increaseIntervalSec, uint32_t decreaseFullness,
                               uint32_t decreasePercent, uint32_t decreaseFullnessHigh,
                               uint32_t decreasePercentHigh, uint32_t decreaseIntervalSec, uint32_t spare);
void RtmpQueueAdaptiveBitrateDestroy(RtmpQueueAdaptiveBitrate *abr); // null is fine

// RtmpQueueAdaptiveBitrateReset makes it uninitialised again; minimum and parameters stay. 0; 1 null.
int RtmpQueueAdaptiveBitrateReset(RtmpQueueAdaptiveBitrate *abr);

// RtmpQueueAdaptiveBitrateInit starts at `bitrate` (bit/s), which is the ceiling from then on. 0; 1 null.
int RtmpQueueAdaptiveBitrateInit(RtmpQueueAdaptiveBitrate *abr, int32_t bitrate);

// RtmpQueueAdaptiveBitrateUpdate decides, once per video frame, and tells the host.
//
// `bwmKbps`: measured rate; negative: no monitor, and then nothing is ever lowered.
// `queued`, `slots`: the video ring's items and slots. `now`: the frame's time (ms, host's clock).
// 0; 1 null.
int RtmpQueueAdaptiveBitrateUpdate(RtmpQueueAdaptiveBitrate *abr, int32_t bwmKbps, int32_t queued,
                                   int32_t slots, void *hostContext, uint64_t now, RtmpQueueDebug *debug);
}
