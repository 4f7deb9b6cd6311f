// The packet monitor: frames leave on the host's thread, audio in front of the video it precedes.
#pragma once

#include "instruments/monitor_records.h"

extern "C" {

RTMP_STATUS int RtmpMonitorInit(RtmpSession *session, uint32_t encoderHandle, uint32_t withStats);
RtmpMonitor *RtmpQueueInit(RtmpSession *session, uint32_t withStats);
RTMP_STATUS int RtmpMonitorSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                                    uint64_t mapBase, uint64_t timestamp, int64_t mediaType);
RTMP_STATUS int RtmpMonitorDebugInit(RtmpSession *session, uint32_t enable, uint8_t burninEnable,
                                     uint8_t logEnable, const char *directory, uint32_t logEvery);
RTMP_STATUS int RtmpMonitorAdaptiveBitrateInit(RtmpSession *session, uint32_t enable, uint32_t reserved1,
                                               uint32_t reserved2, uint32_t minBitrate,
                                               uint32_t increaseFullness, uint32_t increasePercent,
                                               uint32_t increaseMinStep, uint32_t increaseIntervalSec,
                                               uint32_t decreaseFullness, uint32_t decreasePercent,
                                               uint32_t decreaseFullnessHigh, uint32_t decreasePercentHigh,
                                               uint32_t decreaseIntervalSec, uint32_t spare);
int RtmpMonitorDestroy(RtmpSession *session);
}
