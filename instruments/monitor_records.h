// The packet monitor's records.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef struct RtmpPacket RtmpPacket;

// One parked audio frame.
struct RtmpPacket {
    RtmpSession *Session;
    uint8_t *Data; // an owned copy when Fd is below 1, else the caller's
    int32_t Length;
    int32_t Fd;
    uint64_t MapBase;
    uint64_t PrevTimestamp;
    uint64_t Delta; // ms since the previous audio frame
    uint32_t Kind;
    uint32_t MediaType;
    RtmpPacket *Prev;
    RtmpPacket *Next;
};

typedef struct RtmpMonitorSample {
    uint32_t Kind;
    int64_t Seconds;
    int64_t Microseconds;
    uint32_t Bytes;
    uint32_t RunningTotal; // of the window, at this sample
} RtmpMonitorSample;

typedef struct RtmpMonitorTime {
    int64_t Seconds;
    int64_t Microseconds;
} RtmpMonitorTime;

// The rate over the last video frames.
typedef struct RtmpMonitorStats {
    RtmpMonitorSample *Samples; // kMonitorStatsSamples of them
    int32_t WriteIndex;
    int32_t HeadIndex; // -1 until the first sample
    int32_t Count;
    uint32_t WindowBytes;
    uint64_t SumOfTotals;
    uint64_t Mean;
    uint32_t Kbps;
    RtmpMonitorTime LastRateReport;
    RtmpMonitorTime StartTime;
    RtmpMonitorTime LastUptimeReport;
} RtmpMonitorStats;

// What the host is to be told after a frame.
typedef struct RtmpMonitorReports {
    uint8_t RateIsDue;
    uint8_t UptimeIsDue;
    uint32_t Kbps;
    int64_t Uptime; // seconds
} RtmpMonitorReports;

// Stored by RtmpDebugSettings; this path writes no trace.
typedef struct RtmpMonitorDebug {
    uint64_t StartTs;
    uint32_t FramesSinceLine;
    uint64_t Elapsed;
    uint32_t Dropped;
    uint32_t Reserved;
    uint8_t LogEnable;
    uint8_t BurninEnable;
    char Directory[1024];
    uint32_t LogEvery;
} RtmpMonitorDebug;

// Stored by RtmpAdaptiveBitrateSettings; this path never evaluates it.
typedef struct RtmpMonitorAbr {
    int32_t MaxBitrate;
    int32_t CurrentBitrate;
    uint64_t LastIncreaseTime;
    uint64_t LastDecreaseTime;
    uint8_t AtMinimum;
    int32_t MinBitrate;
    uint32_t IncreaseFullness;
    uint32_t IncreasePercent;
    uint32_t IncreaseMinStep;
    uint32_t IncreaseIntervalSec;
    uint32_t DecreaseFullness;
    uint32_t DecreasePercent;
    uint32_t DecreaseFullnessHigh;
    uint32_t DecreasePercentHigh;
    uint32_t DecreaseIntervalSec;
    uint32_t Spare;
} RtmpMonitorAbr;

struct RtmpMonitor {
    RtmpSession *Session;
    uint64_t LastAudioTs; // host's clock; 0: none yet
    uint64_t LastVideoTs;
    uint64_t LastVideoRtmpTs; // as stamped on messages; shared with serve threads
    uint64_t LastAudioRtmpTs;
    RtmpPacket *AudioRing; // kMonitorAudioSlots of them
    int32_t AudioHead;     // -1: never used, or reset
    int32_t AudioTail;
    RtmpPacket *AudioFirst;
    RtmpPacket *AudioLast;
    int32_t AudioCount;
    RtmpMonitorDebug *DebugSettings;
    RtmpMonitorAbr *AbrSettings;
    RtmpMonitorStats *Stats;
    uint32_t EncoderHandle;

    // our own
    RtmpMutex RingLock; // leaf: everything above but the RTMP timestamps; never held while sending
};
}
