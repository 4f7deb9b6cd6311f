// Threads, mutexes and the clock, behind 0 / -1.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef void *(*RtmpThreadStart)(void *argument);

// Adaptive mutexes (they spin briefly, then block): not recursive, no error checking.
RTMP_STATUS int RtmpMutexInit(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexLock(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexUnlock(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexDestroy(RtmpMutex *mutex);

// RtmpMutexLockFor gives up after `milliseconds` (below 1000). 0; -1; or RTMP_MUTEX_TIME_IS_UP.
enum { RTMP_MUTEX_TIME_IS_UP = 1 };
RTMP_STATUS int RtmpMutexLockFor(RtmpMutex *mutex, long milliseconds);

// RtmpMutexLockOrCancel waits like RtmpMutexLock, and lets a cancel end the thread while it waits.
RTMP_STATUS int RtmpMutexLockOrCancel(RtmpMutex *mutex);

RTMP_STATUS int RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument);
[[noreturn]] void RtmpThreadExit(RtmpThread thread); // ends the calling thread, whatever `thread` is
int RtmpThreadCancel(RtmpThread thread);             // always 0
int RtmpThreadDetach(RtmpThread thread);             // -1 for no thread
RTMP_STATUS int RtmpWaitForThreadCompletion(RtmpThread thread); // 0 at once for no thread
RtmpThread RtmpGetSelfThreadHandle(void);

uint64_t RtmpGetSystemTime(void); // milliseconds of CLOCK_MONOTONIC
}
