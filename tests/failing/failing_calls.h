// Calls of the library, other than for memory, that fail on demand.
#pragma once

#include "rtmpcast/types.h"

enum class Call {
    MutexInit,
    MutexLock,
    MutexUnlock,
    MutexDestroy,
    ThreadCreate,
    ThreadJoin,
    Hmac,
    Socket,
    SetSockOpt,
    Bind, // binds to a port of the system's choice, so that tests do not meet on one
    Listen,
    Accept,
    GetPeerName,
    Shutdown,
    Close,
};

// While it lives, fails the call of the given kind and number, from 1 on, that the calling thread makes; on
// this very mutex only, when one is given. A failing unlock or close does its work, so that the test can go
// on; a failing join or destroy does none.
class FailingCall {
  public:
    explicit FailingCall(Call call, int number = 1, const RtmpMutex *mutex = nullptr);
    FailingCall(const FailingCall &) = delete;
    ~FailingCall();
};

// While it lives, fails the next call of the given kind that another thread makes.
class FailingCallElsewhere {
  public:
    explicit FailingCallElsewhere(Call call);
    FailingCallElsewhere(const FailingCallElsewhere &) = delete;
    ~FailingCallElsewhere();
    bool cameToIt() const;
};

// What the last thread that could not be started was to be given.
void *ArgumentOfTheUnstartedThread();
