#include "failing/failing_calls.h"

#include "net/platform.h"

#include <atomic>
#include <cerrno>
#include <netinet/in.h>
#include <openssl/hmac.h>
#include <pthread.h>
#include <sys/socket.h>

namespace {

struct Armed {
    bool armed;
    Call call;
    int left;
    const void *mutex;
};

thread_local Armed here = {};
constexpr int kNone = -1;
std::atomic<int> elsewhere = kNone;
thread_local bool exempt = false; // the thread that armed `elsewhere`
std::atomic<void *> unstarted = nullptr;

bool MustFail(Call call, const void *mutex = nullptr)
{
    if (here.armed && call == here.call && (here.mutex == nullptr || here.mutex == mutex) &&
        --here.left == 0) {
        return true;
    }
    int expected = static_cast<int>(call);
    return !exempt && elsewhere.compare_exchange_strong(expected, kNone);
}

int FailWith(int error)
{
    errno = error;
    return -1;
}

} // namespace

extern "C" {

int __real_RtmpMutexInit(RtmpMutex *mutex);
int __real_RtmpMutexLock(RtmpMutex *mutex);
int __real_RtmpMutexLockSlice(RtmpMutex *mutex);
int __real_RtmpMutexLockOrCancel(RtmpMutex *mutex);
int __real_RtmpMutexUnlock(RtmpMutex *mutex);
int __real_RtmpMutexDestroy(RtmpMutex *mutex);
int __real_RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument);
int __real_pthread_join(pthread_t thread, void **result);
unsigned char *__real_HMAC(const EVP_MD *type, const void *key, int keyLength, const unsigned char *data,
                           size_t length, unsigned char *digest, unsigned int *digestLength);
int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int __real_bind(int fd, const struct sockaddr *address, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, struct sockaddr *address, socklen_t *length);
int __real_getpeername(int fd, struct sockaddr *address, socklen_t *length);
int __real_shutdown(int fd, int how);
int __real_close(int fd);

int __wrap_RtmpMutexInit(RtmpMutex *mutex)
{
    return MustFail(Call::MutexInit, mutex) ? -1 : __real_RtmpMutexInit(mutex);
}

int __wrap_RtmpMutexLock(RtmpMutex *mutex)
{
    return MustFail(Call::MutexLock, mutex) ? -1 : __real_RtmpMutexLock(mutex);
}

int __wrap_RtmpMutexLockSlice(RtmpMutex *mutex)
{
    return MustFail(Call::MutexLock, mutex) ? -1 : __real_RtmpMutexLockSlice(mutex);
}

int __wrap_RtmpMutexLockOrCancel(RtmpMutex *mutex)
{
    return MustFail(Call::MutexLock, mutex) ? -1 : __real_RtmpMutexLockOrCancel(mutex);
}

int __wrap_RtmpMutexUnlock(RtmpMutex *mutex)
{
    const bool failing = MustFail(Call::MutexUnlock, mutex); // asked first: the mutex may go once it is free
    const int result = __real_RtmpMutexUnlock(mutex);
    return failing ? -1 : result;
}

int __wrap_RtmpMutexDestroy(RtmpMutex *mutex)
{
    return MustFail(Call::MutexDestroy, mutex) ? -1 : __real_RtmpMutexDestroy(mutex);
}

int __wrap_RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument)
{
    if (MustFail(Call::ThreadCreate)) {
        unstarted = argument;
        return -1;
    }
    return __real_RtmpThreadCreate(thread, start, argument);
}

int __wrap_pthread_join(pthread_t thread, void **result)
{
    return MustFail(Call::ThreadJoin) ? ESRCH : __real_pthread_join(thread, result);
}

unsigned char *__wrap_HMAC(const EVP_MD *type, const void *key, int keyLength, const unsigned char *data,
                           size_t length, unsigned char *digest, unsigned int *digestLength)
{
    return MustFail(Call::Hmac) ? nullptr
                                : __real_HMAC(type, key, keyLength, data, length, digest, digestLength);
}

int __wrap_socket(int domain, int type, int protocol)
{
    return MustFail(Call::Socket) ? FailWith(EMFILE) : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return MustFail(Call::SetSockOpt) ? FailWith(ENOPROTOOPT)
                                      : __real_setsockopt(fd, level, name, value, length);
}

int __wrap_bind(int fd, const struct sockaddr *address, socklen_t length)
{
    if (MustFail(Call::Bind)) {
        return FailWith(EADDRINUSE);
    }
    struct sockaddr_in free = *reinterpret_cast<const struct sockaddr_in *>(address);
    free.sin_port = 0;
    return __real_bind(fd, reinterpret_cast<struct sockaddr *>(&free), length);
}

int __wrap_listen(int fd, int backlog)
{
    return MustFail(Call::Listen) ? FailWith(EADDRINUSE) : __real_listen(fd, backlog);
}

int __wrap_accept(int fd, struct sockaddr *address, socklen_t *length)
{
    const int accepted = __real_accept(fd, address, length);
    if (accepted != -1 && MustFail(Call::Accept)) {
        __real_close(accepted);
        return FailWith(EMFILE);
    }
    return accepted;
}

int __wrap_getpeername(int fd, struct sockaddr *address, socklen_t *length)
{
    return MustFail(Call::GetPeerName) ? FailWith(ENOTCONN) : __real_getpeername(fd, address, length);
}

int __wrap_shutdown(int fd, int how)
{
    return MustFail(Call::Shutdown) ? FailWith(ENOTCONN) : __real_shutdown(fd, how);
}

int __wrap_close(int fd)
{
    const bool failing = MustFail(Call::Close);
    const int result = __real_close(fd);
    return failing ? FailWith(EIO) : result;
}
}

FailingCall::FailingCall(Call call, int number, const RtmpMutex *mutex)
{
    here = {true, call, number, mutex};
}

FailingCall::~FailingCall()
{
    here.armed = false;
}

FailingCallElsewhere::FailingCallElsewhere(Call call)
{
    exempt = true;
    elsewhere = static_cast<int>(call);
}

FailingCallElsewhere::~FailingCallElsewhere()
{
    elsewhere = kNone;
    exempt = false;
}

bool FailingCallElsewhere::cameToIt() const
{
    return elsewhere == kNone;
}

void *ArgumentOfTheUnstartedThread()
{
    return unstarted;
}
