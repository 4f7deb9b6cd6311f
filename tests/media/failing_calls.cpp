#include "tests/media/failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string>

namespace {

std::atomic<int> untilFailure = 0;
std::atomic<bool> failed = false;
std::atomic<pthread_mutex_t *> failingLock = nullptr;
std::atomic<pthread_mutex_t *> failingUnlock = nullptr;
std::string lastBoolean;

} // namespace

void FailAllocation(int n)
{
    failed = false;
    untilFailure = n;
}

bool AllocationFailed()
{
    return failed;
}

void FailLockOf(RtmpMutex *mutex)
{
    failingLock = mutex;
}

void FailUnlockOf(RtmpMutex *mutex)
{
    failingUnlock = mutex;
}

std::string LastBoolean()
{
    return lastBoolean;
}

extern "C" {

void *__real_calloc(size_t count, size_t size);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __real_WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value);

void *__wrap_calloc(size_t count, size_t size)
{
    if (untilFailure > 0 && --untilFailure == 0) {
        failed = true;
        return nullptr;
    }
    return __real_calloc(count, size);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return mutex == failingLock ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    return mutex == failingUnlock ? EINVAL : __real_pthread_mutex_unlock(mutex);
}

int __wrap_WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value)
{
    lastBoolean = std::string(name) + "=" + std::to_string(value);
    return __real_WriteAmfBoolean(server, into, name, value);
}
}
