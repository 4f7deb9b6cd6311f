#include "support/calls/wrapped_calls.h"

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
RtmpSendPkt *__real_GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);
int __real_JoinStream(RtmpClient *client, const char *name);

uint64_t __wrap_RtmpGetSystemTime(void)
{
    return wrapped::clockStands ? wrapped::now.load() : __real_RtmpGetSystemTime();
}

int __wrap_RtmpMutexLock(RtmpMutex *mutex)
{
    return mutex == wrapped::brokenLock || IsDue(&wrapped::failLock) ? -1 : __real_RtmpMutexLock(mutex);
}

// A failing unlock lets go of the mutex all the same, so that a test can go on.
int __wrap_RtmpMutexUnlock(RtmpMutex *mutex)
{
    const int status = __real_RtmpMutexUnlock(mutex);
    return mutex == wrapped::brokenUnlock || IsDue(&wrapped::failUnlock) ? -1 : status;
}

void *__wrap_calloc(size_t count, size_t size)
{
    ++wrapped::allocations;
    return IsDue(&wrapped::failAllocation) ? nullptr : __real_calloc(count, size);
}

RtmpSendPkt *__wrap_GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind)
{
    return wrapped::failGenerate ? nullptr : __real_GenerateRtmpMsg(client, recvPkt, kind);
}

int __wrap_JoinStream(RtmpClient *client, const char *name)
{
    const int result = wrapped::joinResult;
    return result != 0 ? result : __real_JoinStream(client, name);
}
}
