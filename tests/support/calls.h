// The calls of the library that a test steers: it makes them fail, counts them, or answers in their place.
// Which ones those are in an executable is said in tests/CMakeLists.txt (WRAP); all others go straight to the
// real call, and everything passes until a test says otherwise.
#pragma once

#include "rtmpcast/types.h"

#include <cstdint>
#include <ctime>
#include <string>

enum class Call {
    Calloc,
    Malloc,
    Realloc,
    MutexInit,
    MutexLock,   // RtmpMutexLock and its sisters
    MutexUnlock, // a failing one gives the mutex back all the same, so that the test can go on
    MutexDestroy,
    SystemLock,   // pthread_mutex_lock
    SystemUnlock, // pthread_mutex_unlock: a failing one leaves the mutex taken
    ThreadCreate, // RtmpThreadCreate, pthread_create
    ThreadJoin,   // a failing one does not join
    Hmac,
    Socket,
    SetSockOpt,
    Bind, // binds to a port of the system's choice, so that tests do not meet on one
    Listen,
    Accept,
    Accept4, // a failing one leaves the connection where it waits
    GetPeerName,
    Shutdown,
    Close,       // a failing one closes all the same
    GenerateMsg, // GenerateRtmpMsg, as commands call it
    JoinStream,
    Send,
    SendMmsg,
    SendMsg,
    SendFile,
    Recv,
    Read,
    Write,
    Poll,
    Fcntl,
    GetSockOpt,
    Ioctl,
    EpollCreate,
    EpollCtl, // EPOLL_CTL_ADD
    EpollMod, // EPOLL_CTL_MOD
    EventFd,
    FileOpen,
    FilePrint,
    MakeDirectory,
    TlsRead,
    TlsWrite,
    Count_,
};

// ------------------------------------------------------------------------ calls that the calling thread
// makes

// Stands for every mutex that RtmpMutexInit has made: taking and giving back one of the others, which come
// with their record, cannot fail, and nobody asks.
extern const RtmpMutex *const kMadeMutexes;

// While it lives, fails the call of the given kind and number, from 1 on, that the calling thread makes; on
// this very mutex only, when one is given.
class FailingCall {
  public:
    explicit FailingCall(Call call, int number = 1, const RtmpMutex *mutex = nullptr);
    FailingCall(const FailingCall &) = delete;
    ~FailingCall();
    bool cameToIt() const;
};

// While it lives, counts the allocations of the calling thread, of all three kinds, and fails the one of the
// given number, from 1 on; 0 fails none. What the tests themselves allocate through C++ is not touched.
class FailingAllocation {
  public:
    explicit FailingAllocation(int number);
    FailingAllocation(const FailingAllocation &) = delete;
    ~FailingAllocation();
    int seen() const;
};

// --------------------------------------------------------------------------- calls that any other thread
// makes

// While it lives, fails the call of the given kind and number, from 1 on, that other threads make; of locks,
// those of kMadeMutexes.
class FailingCallElsewhere {
  public:
    explicit FailingCallElsewhere(Call call, int number = 1);
    FailingCallElsewhere(const FailingCallElsewhere &) = delete;
    ~FailingCallElsewhere();
    bool cameToIt() const;
};

// ------------------------------------------------------------------------------- calls of any thread, from
// now on

namespace calls {

void failNext(Call call, int number = 1);                     // the one of this number from now on; 0: none
bool hasFailed(Call call);                                    // it came to that
void failAlways(Call call, const RtmpMutex *mutex = nullptr); // on this very mutex only, when one is given
void failNever(Call call);
void failWith(Call call, int error); // errno of a failing one from now on, where it is Accept4
uint64_t made(Call call);            // so far

// The library's clock stands, and shows this.
void setClock(uint64_t milliseconds);
uint64_t clock();

// The wall clock as the library reads it runs this far ahead of the system's: to whoever measures a wait by
// it, the system's clock seems set back.
void setWallClockAhead(time_t seconds);

// The mutexes of records that are gone are no longer among kMadeMutexes, destroyed or not: all there are
// until now.
void forgetMutexes();

// What a failed join has left: threads that have ended, or are about to. On the thread whose join failed.
void joinTheUnjoined();

// Everything passes through again, and the clocks run as they do.
void reset();

// What the last thread that could not be started was to be given.
void *argumentOfTheUnstartedThread();

// "name=value" of the last WriteAmfBoolean: a value that never reaches the wire.
std::string lastBoolean();

} // namespace calls
