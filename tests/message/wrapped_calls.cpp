#include "wrapped_calls.h"

#include "rtmpcast/types.h"

#include <cstddef>

namespace {

// True for the call at which the countdown ends.
bool IsDue(std::atomic<int> *countdown)
{
    return *countdown > 0 && --*countdown == 0;
}

} // namespace

extern "C" {

uint64_t __real_RtmpGetSystemTime(void);
int __real_RtmpMutexLock(RtmpMutex *mutex);
int __real_RtmpMutexUnlock(RtmpMutex *mutex);
void *__real_calloc(size_t count, size_t size);

uint64_t __wrap_RtmpGetSystemTime(void)
{
    return wrapped::clockStands ? wrapped::now.load() : __real_RtmpGetSystemTime();
}

int __wrap_RtmpMutexLock(RtmpMutex *mutex)
{
    return IsDue(&wrapped::failLock) ? -1 : __real_RtmpMutexLock(mutex);
}

// A failing unlock lets go of the mutex all the same, so that a test can go on.
int __wrap_RtmpMutexUnlock(RtmpMutex *mutex)
{
    const int status = __real_RtmpMutexUnlock(mutex);
    return IsDue(&wrapped::failUnlock) ? -1 : status;
}

void *__wrap_calloc(size_t count, size_t size)
{
    ++wrapped::allocations;
    return IsDue(&wrapped::failAllocation) ? nullptr : __real_calloc(count, size);
}
}
