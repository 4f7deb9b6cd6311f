// The threaded sender's records.
#pragma once

#include "rtmpcast/types.h"

#include <semaphore.h>
#include <stdio.h>

extern "C" {

// One ring slot.
typedef struct RtmpQueueBufferItem {
    uint32_t Type; // RTMP_MSG_VIDEO or RTMP_MSG_AUDIO
    uint8_t *Data; // an owned copy when Fd is below 1, else the caller's
    int32_t Length;
    int32_t Fd;
    uint64_t MapBase;
    uint64_t Timestamp; // ms, host's clock
    int32_t Capacity;   // our own: bytes that Data has room for when it is owned
    uint8_t *Buffer;    // our own: the slot's buffer, kept while the slot references a caller's frame
} RtmpQueueBufferItem;

typedef struct RtmpQueueBuffer RtmpQueueBuffer;
typedef struct RtmpQueueBWM RtmpQueueBWM;
typedef struct RtmpQueueDebug RtmpQueueDebug;
typedef struct RtmpQueueAdaptiveBitrate RtmpQueueAdaptiveBitrate;

struct RtmpThreadedQueue {
    RtmpSession *Session;
    uint32_t EncoderHandle;
    RtmpQueueBuffer *AudioBuffer;
    RtmpQueueBuffer *VideoBuffer;
    RtmpQueueBWM *Bwm;
    RtmpQueueDebug *Debug;
    RtmpQueueAdaptiveBitrate *Abr;
    uint64_t LastAudioTs; // host's clock; 0: none yet
    uint64_t LastVideoTs;
    uint64_t LastVideoRtmpTs; // as stamped on messages; shared with serve threads
    uint64_t LastAudioRtmpTs;
    uint8_t Closed;
    uint8_t ThreadRunning;
    RtmpThread ThreadId;
    uint8_t ThreadEnded; // our own: the thread has left its body, cancelled or not
};
}
