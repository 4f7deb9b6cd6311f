// The threaded sender's records.
#pragma once

#include "rtmpcast/types.h"

#include <semaphore.h>
#include <stdio.h>

extern "C" {

// Seconds and microseconds of the wall clock.
typedef struct RtmpQueueTime {
    int64_t Seconds;
    int64_t Microseconds;
} RtmpQueueTime;

// ------------------------------------------------------------------------------------------- the rings

// One ring slot.
typedef struct RtmpQueueBufferItem {
    uint32_t Type; // RTMP_MSG_VIDEO or RTMP_MSG_AUDIO
    uint8_t *Data; // an owned copy when Fd is below 1, else the caller's
    int32_t Length;
    int32_t Fd;
    uint64_t MapBase;
    uint64_t Timestamp; // ms, host's clock

    // our own
    uint8_t *Buffer;   // the slot's buffer, kept between uses, whatever Data points to
    uint64_t Capacity; // bytes of it
    uint32_t Breaks;   // RtmpQueueBuffer.Breaks when it was added
} RtmpQueueBufferItem;

// What RtmpQueueBufferTake gave out.
enum RtmpQueueUse {
    QUEUE_USE_NOTHING = 0,
    QUEUE_USE_HEAD = 1,    // the item at ReadPos
    QUEUE_USE_SENDING = 2, // the same, and players may have got it
    QUEUE_USE_FLUSHED = 3  // an item that a flush took out of the ring meanwhile: InUse owns its buffer
};

// One producer adds, resets and flushes; one consumer takes and releases.
typedef struct RtmpQueueBuffer {
    sem_t Sem; // one post per item added
    RtmpMutex
        Lock; // held by the sender while it uses an item, sending included; the producer never waits for it
    int32_t Size; // slots: the requested size + 1, all of them usable
    RtmpQueueBufferItem *Items;
    int32_t Count; // shared
    int32_t ReadPos;
    int32_t WritePos;

    // our own
    RtmpMutex SlotLock;        // leaf: what a flush and the sender both touch; never held while sending
    RtmpQueueBufferItem InUse; // the item that the sender took
    uint8_t Use;               // RtmpQueueUse
    uint32_t Breaks; // how often something was dropped that would have been in the ring; the producer's
} RtmpQueueBuffer;

// ------------------------------------------------------------------------------- bandwidth monitor, trace

typedef struct RtmpQueueBWMItem {
    RtmpQueueTime SendTime;
    uint32_t Bytes;
} RtmpQueueBWMItem;

// The rate over the last frames. Written by the sender thread.
typedef struct RtmpQueueBWM {
    int32_t Size; // window + 1
    RtmpQueueBWMItem *Samples;
    uint32_t Count;
    uint32_t Head; // oldest sample
    uint32_t Tail; // next slot to write
    int64_t TotalBytes;
    uint64_t BytesPerSec;
    uint32_t Kbps; // shared with the producer
    RtmpQueueTime LastRateReport;
    RtmpQueueTime StartTime;
    RtmpQueueTime LastUptimeReport;
} RtmpQueueBWM;

enum { QUEUE_DEBUG_DIRECTORY = 1024, QUEUE_DEBUG_PATH = 128, QUEUE_BURNIN_TEXT = 20 };

// The CSV trace. File, StartTs and Dropped are the producer's and shared with the sender thread.
typedef struct RtmpQueueDebug {
    FILE *File;
    uint64_t StartTs;         // host's clock; 0: not started
    uint32_t FramesSinceLine; // the sender thread's
    uint64_t Elapsed;         // ms since StartTs
    uint32_t Dropped;         // video frames that flushes discarded
    uint32_t Reserved;        // 0
    uint8_t LogEnable;
    uint8_t BurninEnable;
    char Directory[QUEUE_DEBUG_DIRECTORY];
    uint32_t LogEvery;

    // our own
    char RateText[QUEUE_BURNIN_TEXT]; // the burn-in texts as last made, for an overlay to come
    char QueueText[QUEUE_BURNIN_TEXT];
} RtmpQueueDebug;

// -------------------------------------------------------------------------------------- adaptive bitrate

// The controller. Everything is the producer's; the sender thread reads CurrentBitrate.
typedef struct RtmpQueueAdaptiveBitrate {
    int32_t MaxBitrate;        // bit/s; -1: not initialised
    int32_t CurrentBitrate;    // bit/s; -1: not initialised
    uint64_t LastIncreaseTime; // host's clock, ms; all ones: never
    uint64_t LastDecreaseTime;
    uint8_t AtMinimum; // "Bitrate is at minimum" is outstanding
    int32_t MinBitrate;
    uint64_t StartTime; // of the first evaluation; 0: none yet
    uint32_t StartDelayMs;
    uint32_t IncreaseFullness; // percent of the ring
    uint32_t IncreasePercent;
    uint32_t IncreaseMinStep; // bit/s
    uint32_t IncreaseIntervalSec;
    uint32_t DecreaseFullness;
    uint32_t DecreasePercent;
    uint32_t DecreaseFullnessHigh;
    uint32_t DecreasePercentHigh;
    uint32_t DecreaseIntervalSec;
    uint32_t Spare;
    RtmpLogger *Logger;
} RtmpQueueAdaptiveBitrate;

// ------------------------------------------------------------------------------------------------- queue

struct RtmpThreadedQueue {
    RtmpSession *Session;
    uint32_t EncoderHandle;
    RtmpQueueBuffer *AudioBuffer;
    RtmpQueueBuffer *VideoBuffer;
    RtmpQueueBWM *Bwm;
    RtmpQueueDebug *Debug;
    RtmpQueueAdaptiveBitrate *Abr;
    uint64_t LastAudioTs; // host's clock; 0: none yet. The sender thread's
    uint64_t LastVideoTs;
    uint64_t LastVideoRtmpTs; // as stamped on messages; shared with serve threads
    uint64_t LastAudioRtmpTs;
    uint8_t Closed;        // shared: set by the sender thread when a send fails
    uint8_t ThreadRunning; // shared: cleared by the sender thread as the last thing it does
    uint32_t BreaksSent;   // RtmpQueueBufferItem.Breaks of the last video item sent; the sender thread's
    RtmpThread ThreadId;   // the producer's; not 0: the thread is still to be joined, running or not
};
}
