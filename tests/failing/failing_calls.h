// Calls of the library, other than for memory, that fail on demand.
#pragma once

enum class Call { MutexLock, MutexUnlock, Hmac };

// While it lives, fails the call of the given kind and number, from 1 on, that the calling thread makes. A
// failing unlock does unlock, so that the test can go on.
class FailingCall {
  public:
    FailingCall(Call call, int number);
    FailingCall(const FailingCall &) = delete;
    ~FailingCall();
};
