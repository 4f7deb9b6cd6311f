#include "support/calls.h"

#include "net/platform.h"
#include "rtmpcast/media.h"
#include "rtmpcast/publish.h"
#include "state/session_list.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <netinet/in.h>
#include <openssl/hmac.h>
#include <pthread.h>
#include <sys/socket.h>

namespace {

// What was asked for a kind of call, whichever thread makes it.
struct Order {
    std::atomic<int> left{0}; // until the one that fails; 0: none does
    std::atomic<bool> failed{false};
    std::atomic<bool> always{false};
    std::atomic<const void *> mutex{nullptr}; // null: any
    std::atomic<uint64_t> made{0};
    std::atomic<int> error{EMFILE};
};

std::array<Order, static_cast<size_t>(Call::Count_)> orders;

// What was asked for the calls of one thread.
struct Armed {
    bool armed;
    Call call;
    int left;
    const void *mutex;
};

struct Allocations {
    bool counting;
    int seen;
    int failAt;
};

thread_local Armed here = {};
thread_local Allocations allocations = {};
constexpr int kNone = -1;
std::atomic<int> elsewhere = kNone;
thread_local bool exempt = false; // the thread that armed `elsewhere`
std::atomic<void *> unstarted = nullptr;
std::atomic<bool> clockStands = false;
std::atomic<uint64_t> now = 0;
std::atomic<time_t> wallClockAhead = 0;
std::string lastBooleanText;

Order &OrderOf(Call call)
{
    return orders[static_cast<size_t>(call)];
}

bool IsDue(std::atomic<int> &countdown)
{
    int left = countdown;
    while (left > 0) {
        if (countdown.compare_exchange_weak(left, left - 1)) {
            return left == 1;
        }
    }
    return false;
}

bool IsOrdered(Call call, const void *mutex)
{
    Order &order = OrderOf(call);
    ++order.made;
    const void *only = order.mutex;
    if (order.always && (only == nullptr || only == mutex)) {
        return true;
    }
    if (!IsDue(order.left)) {
        return false;
    }
    order.failed = true;
    return true;
}

bool IsArmedHere(Call call, const void *mutex)
{
    return here.armed && call == here.call && (here.mutex == nullptr || here.mutex == mutex) &&
           --here.left == 0;
}

bool MustFail(Call call, const void *mutex = nullptr)
{
    if (IsOrdered(call, mutex) || IsArmedHere(call, mutex)) {
        return true;
    }
    int expected = static_cast<int>(call);
    return !exempt && elsewhere.compare_exchange_strong(expected, kNone);
}

bool AllocationMustFail(Call call)
{
    const bool counted = allocations.counting && ++allocations.seen == allocations.failAt;
    return MustFail(call) || counted;
}

int FailWith(int error)
{
    errno = error;
    return -1;
}

} // namespace

// A call that is not wrapped in an executable has no real one under this name there: weak, and never reached.
#define REAL extern "C" __attribute__((weak))

REAL void *__real_calloc(size_t count, size_t size);
REAL void *__real_malloc(size_t size);
REAL void *__real_realloc(void *memory, size_t size);
REAL int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
REAL int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
REAL int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                               void *argument);
REAL int __real_clock_gettime(clockid_t clock, timespec *now);
REAL uint64_t __real_RtmpGetSystemTime(void);
REAL RtmpSendPkt *__real_GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);
REAL int __real_JoinStream(RtmpClient *client, const char *name);
REAL int __real_WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value);
REAL int __real_RtmpMutexInit(RtmpMutex *mutex);
REAL int __real_RtmpMutexLock(RtmpMutex *mutex);
REAL int __real_RtmpMutexLockSlice(RtmpMutex *mutex);
REAL int __real_RtmpMutexLockOrCancel(RtmpMutex *mutex);
REAL int __real_RtmpMutexUnlock(RtmpMutex *mutex);
REAL int __real_RtmpMutexDestroy(RtmpMutex *mutex);
REAL int __real_RtmpThreadCreate(RtmpThread *thread, RtmpThreadStart start, void *argument);
REAL int __real_pthread_join(pthread_t thread, void **result);
REAL unsigned char *__real_HMAC(const EVP_MD *type, const void *key, int keyLength, const unsigned char *data,
                                size_t length, unsigned char *digest, unsigned int *digestLength);
REAL int __real_socket(int domain, int type, int protocol);
REAL int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
REAL int __real_bind(int fd, const struct sockaddr *address, socklen_t length);
REAL int __real_listen(int fd, int backlog);
REAL int __real_accept(int fd, struct sockaddr *address, socklen_t *length);
REAL int __real_accept4(int fd, struct sockaddr *address, socklen_t *length, int flags);
REAL int __real_getpeername(int fd, struct sockaddr *address, socklen_t *length);
REAL int __real_shutdown(int fd, int how);
REAL int __real_close(int fd);

#undef REAL

extern "C" {

void *__wrap_calloc(size_t count, size_t size)
{
    return AllocationMustFail(Call::Calloc) ? nullptr : __real_calloc(count, size);
}

void *__wrap_malloc(size_t size)
{
    return AllocationMustFail(Call::Malloc) ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *memory, size_t size)
{
    return AllocationMustFail(Call::Realloc) ? nullptr : __real_realloc(memory, size);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return MustFail(Call::SystemLock, mutex) ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    return MustFail(Call::SystemUnlock, mutex) ? EINVAL : __real_pthread_mutex_unlock(mutex);
}

// Weak, as pthread_join below: the fuzzer's targets, which link this file and fail no call, have their own.
__attribute__((weak)) int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                                                void *(*start)(void *), void *argument)
{
    return MustFail(Call::ThreadCreate) ? EAGAIN : __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
    const int result = __real_clock_gettime(clock, time);
    if (clock == CLOCK_REALTIME) {
        time->tv_sec += wallClockAhead;
    }
    return result;
}

uint64_t __wrap_RtmpGetSystemTime(void)
{
    return clockStands ? now.load() : __real_RtmpGetSystemTime();
}

RtmpSendPkt *__wrap_GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind)
{
    return MustFail(Call::GenerateMsg) ? nullptr : __real_GenerateRtmpMsg(client, recvPkt, kind);
}

int __wrap_JoinStream(RtmpClient *client, const char *name)
{
    return MustFail(Call::JoinStream) ? JOIN_FAILED : __real_JoinStream(client, name);
}

int __wrap_WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value)
{
    lastBooleanText = std::string(name) + "=" + std::to_string(value);
    return __real_WriteAmfBoolean(server, into, name, value);
}

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

__attribute__((weak)) int __wrap_pthread_join(pthread_t thread, void **result)
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

int __wrap_accept4(int fd, struct sockaddr *address, socklen_t *length, int flags)
{
    return MustFail(Call::Accept4) ? FailWith(OrderOf(Call::Accept4).error)
                                   : __real_accept4(fd, address, length, flags);
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

FailingAllocation::FailingAllocation(int number)
{
    allocations = {true, 0, number};
}

FailingAllocation::~FailingAllocation()
{
    allocations.counting = false;
}

int FailingAllocation::seen() const
{
    return allocations.seen;
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

namespace calls {

void failNext(Call call, int number)
{
    OrderOf(call).failed = false;
    OrderOf(call).left = number;
}

bool hasFailed(Call call)
{
    return OrderOf(call).failed;
}

void failAlways(Call call, const RtmpMutex *mutex)
{
    OrderOf(call).mutex = mutex;
    OrderOf(call).always = true;
}

void failNever(Call call)
{
    OrderOf(call).always = false;
    OrderOf(call).left = 0;
}

void failWith(Call call, int error)
{
    OrderOf(call).error = error;
}

uint64_t made(Call call)
{
    return OrderOf(call).made;
}

void setClock(uint64_t milliseconds)
{
    now = milliseconds;
    clockStands = true;
}

uint64_t clock()
{
    return now;
}

void setWallClockAhead(time_t seconds)
{
    wallClockAhead = seconds;
}

void reset()
{
    for (size_t call = 0; call < orders.size(); call++) {
        failNever(static_cast<Call>(call));
        orders[call].error = EMFILE;
    }
    clockStands = false;
    wallClockAhead = 0;
}

void *argumentOfTheUnstartedThread()
{
    return unstarted;
}

std::string lastBoolean()
{
    return lastBooleanText;
}

} // namespace calls
