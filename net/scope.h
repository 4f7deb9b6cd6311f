// Scope guards: what was taken or made is given back on every way out, also when the thread is cancelled.
// They only unlock and free, which are no cancellation points.
#pragma once

#include "net/platform.h"

#include <stdlib.h>

inline void ReleaseScopedMutex(RtmpMutex **mutex)
{
    if (*mutex != nullptr) {
        (void)RtmpMutexUnlock(*mutex); // a guard reports nothing
    }
}

// HoldLeaf takes a leaf: a lock of the library's own under which nothing waits and no other lock is taken,
// and that nobody destroys while it may be in use. Taking such a lock cannot fail.
//
//     UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
inline RtmpMutex *HoldLeaf(RtmpMutex *leaf)
{
    pthread_mutex_lock(leaf);
    return leaf;
}

inline void ReleaseScopedMemory(void *pointerToPointer)
{
    free(*static_cast<void **>(pointerToPointer));
}

// UNLOCK_AT_EXIT RtmpMutex *held = &lock; ... `held = nullptr` hands the duty to an explicit unlock.
#define UNLOCK_AT_EXIT __attribute__((cleanup(ReleaseScopedMutex), unused))

// FREE_AT_EXIT T *p = ...; ... `p = nullptr` keeps what it pointed to.
#define FREE_AT_EXIT __attribute__((cleanup(ReleaseScopedMemory), unused))

// What a thread that may be cancelled must finish once begun: the host's functions, file writes.
inline int ForbidCancel()
{
    int previous;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    return previous;
}

inline void RestoreScopedCancel(int *previous)
{
    pthread_setcancelstate(*previous, nullptr);
}

// WITHOUT_CANCEL int restore = ForbidCancel();
#define WITHOUT_CANCEL __attribute__((cleanup(RestoreScopedCancel), unused))
