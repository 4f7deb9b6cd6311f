#include "net/platform.h"

#include <errno.h>
#include <stdio.h>
#include <time.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

// perror and printf are cancellation points, and a thread cancelled inside them would leave the stream locked
// for good.
void ReportError(const char *who)
{
    int previous;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    perror(who);
    pthread_setcancelstate(previous, nullptr);
}

void ReportClockError()
{
    int previous;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    printf("clock_gettime error %d\n", errno);
    pthread_setcancelstate(previous, nullptr);
}

// Reserved; what is used of it becomes resident. A sanitizer's frames are several times as large.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr size_t kConnectionStack = 8 << 20;
#else
constexpr size_t kConnectionStack = 1 << 20;
#endif

struct timespec EndOfSlice()
{
    constexpr long nanosecondsPerSecond = 1000000000;
    struct timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += RTMP_WAIT_SLICE_MS * 1000000L;
    if (end.tv_nsec >= nanosecondsPerSecond) {
        end.tv_nsec -= nanosecondsPerSecond;
        end.tv_sec++;
    }
    return end;
}

// The thread sanitizer of GCC 12 does not know pthread_mutex_clocklock.
void TellSanitizerLocked([[maybe_unused]] RtmpMutex *mutex)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
    __tsan_mutex_post_lock(mutex, __tsan_mutex_try_lock, 0);
#endif
}

int LockUntil(RtmpMutex *mutex, const struct timespec *end)
{
    const int result = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, end);
    if (result == 0) {
        TellSanitizerLocked(mutex);
    }
    return result;
}

int StatusOf(int pthreadResult)
{
    return pthreadResult == 0 ? 0 : -1;
}

} // namespace

int RtmpMutexInit(RtmpMutex *mutex)
{
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0 ||
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP) != 0) {
        return -1;
    }
    return StatusOf(pthread_mutex_init(mutex, &attributes));
}

int RtmpMutexLock(RtmpMutex *mutex)
{
    return StatusOf(pthread_mutex_lock(mutex));
}

int RtmpMutexLockSlice(RtmpMutex *mutex)
{
    int result = pthread_mutex_trylock(mutex);
    if (result == EBUSY) {
        const struct timespec end = EndOfSlice();
        result = LockUntil(mutex, &end);
    }
    return result == ETIMEDOUT ? RTMP_WAIT_IS_UP : StatusOf(result);
}

int RtmpMutexLockOrCancel(RtmpMutex *mutex)
{
    int result;
    do {
        pthread_testcancel(); // no mutex is a cancellation point
        result = RtmpMutexLockSlice(mutex);
    } while (result == RTMP_WAIT_IS_UP);
    return result;
}

int RtmpConditionInit(pthread_cond_t *condition)
{
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0 ||
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) != 0) {
        return -1;
    }
    const int result = pthread_cond_init(condition, &attributes);
    pthread_condattr_destroy(&attributes);
    return StatusOf(result);
}

int RtmpConditionWaitSlice(pthread_cond_t *condition, RtmpMutex *mutex)
{
    const struct timespec end = EndOfSlice();
    return pthread_cond_timedwait(condition, mutex, &end) == ETIMEDOUT ? RTMP_WAIT_IS_UP : 0;
}

int RtmpMutexUnlock(RtmpMutex *mutex)
{
    return StatusOf(pthread_mutex_unlock(mutex));
}

int RtmpMutexDestroy(RtmpMutex *mutex)
{
    return StatusOf(pthread_mutex_destroy(mutex));
}

int RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument)
{
    return StatusOf(pthread_create(thread, nullptr, start, argument));
}

int RtmpDetachedThreadCreate(RtmpThreadStart start, void *argument)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return -1;
    }
    RtmpThread thread;
    const int result = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                               pthread_attr_setstacksize(&attributes, kConnectionStack) == 0
                           ? pthread_create(&thread, &attributes, start, argument)
                           : -1;
    pthread_attr_destroy(&attributes);
    return StatusOf(result);
}

void RtmpThreadExit(RtmpThread /*thread*/)
{
    pthread_exit(nullptr);
}

int RtmpThreadCancel(RtmpThread thread)
{
    if (thread != 0) {
        pthread_cancel(thread);
    }
    return 0;
}

int RtmpThreadDetach(RtmpThread thread)
{
    return thread != 0 ? StatusOf(pthread_detach(thread)) : -1;
}

int RtmpWaitForThreadCompletion(RtmpThread thread)
{
    if (thread == 0) {
        return 0;
    }
    const int result = pthread_join(thread, nullptr);
    if (result != 0) {
        errno = result; // pthread_join returns its error, perror reads errno
        ReportError("RtmpWaitForThreadCompletion");
        return -1;
    }
    return 0;
}

RtmpThread RtmpGetSelfThreadHandle(void)
{
    const RtmpThread self = pthread_self();
    if (self == 0) {
        ReportError("RtmpGetSelfThreadHandle");
        return static_cast<RtmpThread>(-1);
    }
    return self;
}

uint64_t RtmpGetSystemTime(void)
{
    struct timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        ReportClockError();
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}
