#include "support/calls.h"

#include "net/platform.h"
#include "rtmpcast/media.h"
#include "rtmpcast/publish.h"
#include "state/session_list.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <netinet/in.h>
#include <openssl/hmac.h>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

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
std::atomic<int> leftElsewhere = 0; // until the one that fails
thread_local bool exempt = false;   // the thread that armed `elsewhere`
std::atomic<void *> unstarted = nullptr;
thread_local std::vector<pthread_t> unjoined; // whose join failed on this thread
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

// Mutexes between RtmpMutexInit and RtmpMutexDestroy, where both are wrapped.
class MadeMutexes {
  public:
    void add(const void *mutex)
    {
        const std::lock_guard<std::mutex> held(mutex_);
        made_.insert(mutex);
    }
    void remove(const void *mutex)
    {
        const std::lock_guard<std::mutex> held(mutex_);
        made_.erase(mutex);
    }
    void clear()
    {
        const std::lock_guard<std::mutex> held(mutex_);
        made_.clear();
    }
    bool has(const void *mutex) const
    {
        const std::lock_guard<std::mutex> held(mutex_);
        return made_.count(mutex) != 0;
    }

  private:
    mutable std::mutex mutex_;
    std::set<const void *> made_;
};

MadeMutexes &Made()
{
    static MadeMutexes &made = *new MadeMutexes; // outlives threads that end with the process
    return made;
}

RtmpMutex anyMade;

bool IsMeant(const void *asked, const void *mutex)
{
    return asked == nullptr || asked == mutex || (asked == &anyMade && Made().has(mutex));
}

bool IsArmedHere(Call call, const void *mutex)
{
    return here.armed && call == here.call && IsMeant(here.mutex, mutex) && --here.left == 0;
}

bool IsLockOrUnlock(Call call)
{
    return call == Call::MutexLock || call == Call::MutexUnlock;
}

bool IsArmedElsewhere(Call call, const void *mutex)
{
    return !exempt && elsewhere == static_cast<int>(call) && (!IsLockOrUnlock(call) || Made().has(mutex)) &&
           IsDue(leftElsewhere);
}

bool MustFail(Call call, const void *mutex = nullptr)
{
    return IsOrdered(call, mutex) || IsArmedHere(call, mutex) || IsArmedElsewhere(call, mutex);
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
REAL ssize_t __real_send(int fd, const void *bytes, size_t length, int flags);
REAL int __real_sendmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags);
REAL ssize_t __real_sendmsg(int fd, const struct msghdr *message, int flags);
REAL ssize_t __real_sendfile(int out, int in, off_t *offset, size_t length);
REAL ssize_t __real_recv(int fd, void *bytes, size_t length, int flags);
REAL ssize_t __real_read(int fd, void *bytes, size_t length);
REAL ssize_t __real_write(int fd, const void *bytes, size_t length);
REAL int __real_poll(struct pollfd *entries, nfds_t count, int timeout);
REAL int __real_fcntl(int fd, int command, ...);
REAL int __real_getsockopt(int fd, int level, int name, void *value, socklen_t *length);
REAL int __real_ioctl(int fd, unsigned long request, ...);
REAL int __real_epoll_create1(int flags);
REAL int __real_epoll_ctl(int set, int operation, int fd, struct epoll_event *event);
REAL int __real_eventfd(unsigned int count, int flags);
REAL FILE *__real_fopen(const char *path, const char *mode);
REAL int __real_mkdir(const char *path, mode_t mode);
REAL int __real_SSL_read(struct ssl_st *ssl, void *bytes, int length);
REAL int __real_SSL_write(struct ssl_st *ssl, const void *bytes, int length);

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
    if (MustFail(Call::ThreadCreate)) {
        unstarted = argument;
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, start, argument);
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
    if (MustFail(Call::MutexInit, mutex)) {
        return -1;
    }
    Made().add(mutex);
    return __real_RtmpMutexInit(mutex);
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
    if (MustFail(Call::MutexDestroy, mutex)) {
        return -1;
    }
    Made().remove(mutex);
    return __real_RtmpMutexDestroy(mutex);
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
    if (MustFail(Call::ThreadJoin)) {
        unjoined.push_back(thread);
        return ESRCH;
    }
    std::erase(unjoined, thread);
    return __real_pthread_join(thread, result);
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

// Those below are weak: a folder that looks at one of these calls for itself has a definition of its own.
#define WRAPPED __attribute__((weak))

WRAPPED ssize_t __wrap_send(int fd, const void *bytes, size_t length, int flags)
{
    return MustFail(Call::Send) ? FailWith(ECONNRESET) : __real_send(fd, bytes, length, flags);
}

WRAPPED int __wrap_sendmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags)
{
    return MustFail(Call::SendMmsg) ? FailWith(EPIPE) : __real_sendmmsg(fd, messages, count, flags);
}

WRAPPED ssize_t __wrap_sendmsg(int fd, const struct msghdr *message, int flags)
{
    return MustFail(Call::SendMsg) ? FailWith(EPIPE) : __real_sendmsg(fd, message, flags);
}

WRAPPED ssize_t __wrap_sendfile(int out, int in, off_t *offset, size_t length)
{
    return MustFail(Call::SendFile) ? FailWith(EIO) : __real_sendfile(out, in, offset, length);
}

WRAPPED ssize_t __wrap_recv(int fd, void *bytes, size_t length, int flags)
{
    return MustFail(Call::Recv) ? FailWith(ECONNRESET) : __real_recv(fd, bytes, length, flags);
}

WRAPPED ssize_t __wrap_read(int fd, void *bytes, size_t length)
{
    return MustFail(Call::Read) ? FailWith(EIO) : __real_read(fd, bytes, length);
}

WRAPPED ssize_t __wrap_write(int fd, const void *bytes, size_t length)
{
    return MustFail(Call::Write) ? FailWith(EIO) : __real_write(fd, bytes, length);
}

WRAPPED int __wrap_poll(struct pollfd *entries, nfds_t count, int timeout)
{
    return MustFail(Call::Poll) ? FailWith(ENOMEM) : __real_poll(entries, count, timeout);
}

WRAPPED int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return MustFail(Call::Fcntl) ? FailWith(EBADF) : __real_fcntl(fd, command, argument);
}

WRAPPED int __wrap_getsockopt(int fd, int level, int name, void *value, socklen_t *length)
{
    return MustFail(Call::GetSockOpt) ? FailWith(ENOPROTOOPT)
                                      : __real_getsockopt(fd, level, name, value, length);
}

WRAPPED int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return MustFail(Call::Ioctl) ? FailWith(ENODEV) : __real_ioctl(fd, request, argument);
}

WRAPPED int __wrap_epoll_create1(int flags)
{
    return MustFail(Call::EpollCreate) ? FailWith(EMFILE) : __real_epoll_create1(flags);
}

// What is in the set can always leave it.
WRAPPED int __wrap_epoll_ctl(int set, int operation, int fd, struct epoll_event *event)
{
    const bool fails = (operation == EPOLL_CTL_ADD && MustFail(Call::EpollCtl)) ||
                       (operation == EPOLL_CTL_MOD && MustFail(Call::EpollMod));
    return fails ? FailWith(ENOSPC) : __real_epoll_ctl(set, operation, fd, event);
}

WRAPPED int __wrap_eventfd(unsigned int count, int flags)
{
    return MustFail(Call::EventFd) ? FailWith(EMFILE) : __real_eventfd(count, flags);
}

WRAPPED FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (MustFail(Call::FileOpen)) {
        errno = ENOSPC;
        return nullptr;
    }
    return __real_fopen(path, mode);
}

WRAPPED int __wrap_fprintf(FILE *file, const char *format, ...)
{
    if (MustFail(Call::FilePrint)) {
        return FailWith(ENOSPC);
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(file, format, arguments);
    va_end(arguments);
    return result;
}

WRAPPED int __wrap_mkdir(const char *path, mode_t mode)
{
    return MustFail(Call::MakeDirectory) ? FailWith(EACCES) : __real_mkdir(path, mode);
}

WRAPPED int __wrap_SSL_read(struct ssl_st *ssl, void *bytes, int length)
{
    return MustFail(Call::TlsRead) ? FailWith(ECONNRESET) : __real_SSL_read(ssl, bytes, length);
}

WRAPPED int __wrap_SSL_write(struct ssl_st *ssl, const void *bytes, int length)
{
    return MustFail(Call::TlsWrite) ? FailWith(EPIPE) : __real_SSL_write(ssl, bytes, length);
}

#undef WRAPPED
}

const RtmpMutex *const kMadeMutexes = &anyMade;

FailingCall::FailingCall(Call call, int number, const RtmpMutex *mutex)
{
    here = {true, call, number, mutex};
}

FailingCall::~FailingCall()
{
    here.armed = false;
}

bool FailingCall::cameToIt() const
{
    return here.left < 1;
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

FailingCallElsewhere::FailingCallElsewhere(Call call, int number)
{
    exempt = true;
    leftElsewhere = number;
    elsewhere = static_cast<int>(call);
}

FailingCallElsewhere::~FailingCallElsewhere()
{
    elsewhere = kNone;
    exempt = false;
}

bool FailingCallElsewhere::cameToIt() const
{
    return leftElsewhere == 0;
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

void joinTheUnjoined()
{
    for (const pthread_t thread : std::exchange(unjoined, {})) {
        (void)__real_pthread_join(thread, nullptr);
    }
}

void forgetMutexes()
{
    Made().clear();
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
