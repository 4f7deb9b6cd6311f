// Threads, mutexes and the clock, behind 0 / -1.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef void *(*RtmpThreadStart)(void *argument);

// What RtmpMutexInit makes, for records that are made without a way to fail.
constexpr RtmpMutex kFreshMutex = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;

// Adaptive mutexes (they spin briefly, then block): not recursive, no error checking.
RTMP_STATUS int RtmpMutexInit(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexLock(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexUnlock(RtmpMutex *mutex);
RTMP_STATUS int RtmpMutexDestroy(RtmpMutex *mutex);

// Nobody can be woken out of the wait for a mutex, so whoever may have to leave one waits in slices and looks
// around after each. All waiting is on CLOCK_MONOTONIC: a wall clock that is set back makes nobody wait.
enum { RTMP_WAIT_SLICE_MS = 10, RTMP_WAIT_IS_UP = 1 };

// RtmpMutexLockSlice gives up after one slice. 0; -1; or RTMP_WAIT_IS_UP.
RTMP_STATUS int RtmpMutexLockSlice(RtmpMutex *mutex);

// RtmpMutexLockOrCancel waits like RtmpMutexLock, and lets a cancel end the thread before and while it waits.
RTMP_STATUS int RtmpMutexLockOrCancel(RtmpMutex *mutex);

// A condition whose waits last one slice at most. RtmpConditionWaitSlice: 0, or RTMP_WAIT_IS_UP.
RTMP_STATUS int RtmpConditionInit(pthread_cond_t *condition);
int RtmpConditionWaitSlice(pthread_cond_t *condition, RtmpMutex *mutex);

RTMP_STATUS int RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument);

// RtmpDetachedThreadCreate starts a thread for one connection, for which nobody waits. Its stack is small: of
// a large one the kernel may make huge pages resident. It holds AMF0 values as deep as kDeepestAmf
// (net/limits.h), and what a host does in a handshake of TLS.
RTMP_STATUS int RtmpDetachedThreadCreate(RtmpThreadStart start, void *argument);

[[noreturn]] void RtmpThreadExit(RtmpThread thread); // ends the calling thread, whatever `thread` is
int RtmpThreadCancel(RtmpThread thread);             // always 0
int RtmpThreadDetach(RtmpThread thread);             // -1 for no thread
RTMP_STATUS int RtmpWaitForThreadCompletion(RtmpThread thread); // 0 at once for no thread
RtmpThread RtmpGetSelfThreadHandle(void);

uint64_t RtmpGetSystemTime(void); // milliseconds of CLOCK_MONOTONIC
}
