#include "failing/failing_calls.h"

#include "net/platform.h"

#include <openssl/hmac.h>

namespace {

thread_local bool armed = false;
thread_local Call armedCall;
thread_local int left = 0;

bool MustFail(Call call)
{
    return armed && call == armedCall && --left == 0;
}

} // namespace

extern "C" {

int __real_RtmpMutexLock(RtmpMutex *mutex);
int __real_RtmpMutexUnlock(RtmpMutex *mutex);
unsigned char *__real_HMAC(const EVP_MD *type, const void *key, int keyLength, const unsigned char *data,
                           size_t length, unsigned char *digest, unsigned int *digestLength);

int __wrap_RtmpMutexLock(RtmpMutex *mutex)
{
    return MustFail(Call::MutexLock) ? -1 : __real_RtmpMutexLock(mutex);
}

int __wrap_RtmpMutexUnlock(RtmpMutex *mutex)
{
    const int result = __real_RtmpMutexUnlock(mutex);
    return MustFail(Call::MutexUnlock) ? -1 : result;
}

unsigned char *__wrap_HMAC(const EVP_MD *type, const void *key, int keyLength, const unsigned char *data,
                           size_t length, unsigned char *digest, unsigned int *digestLength)
{
    return MustFail(Call::Hmac) ? nullptr
                                : __real_HMAC(type, key, keyLength, data, length, digest, digestLength);
}
}

FailingCall::FailingCall(Call call, int number)
{
    armedCall = call;
    left = number;
    armed = true;
}

FailingCall::~FailingCall()
{
    armed = false;
}
