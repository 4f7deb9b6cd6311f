// Calls that hand over a session's frames, on a thread of their own, while another one may destroy the
// session.
#pragma once

#include "net/scope.h"
#include "rtmpcast/rtmpcast.h"
#include "support/wait.h"

#include <atomic>

class FrameCalls {
  public:
    void begin()
    {
        isEnding_ = false;
    }
    // False: they are to end, and it was not called.
    template <typename Call> bool make(Call call)
    {
        isCalling_ = true;
        const bool goesOn = !isEnding_;
        if (goesOn) {
            call();
        }
        isCalling_ = false;
        return goesOn;
    }
    // None begins any more when it returns, and one that has begun has come so far into the library that the
    // session's destroy waits for it. False: it has not come so far in time.
    [[nodiscard]] bool end(RtmpSession *session)
    {
        isEnding_ = true;
        return WaitUntil([&] { return !isCalling_ || HasFrameUnderWay(session); });
    }

  private:
    static bool HasFrameUnderWay(RtmpSession *session)
    {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
        return session->FrameThread != 0;
    }
    std::atomic<bool> isEnding_ = false, isCalling_ = false;
};
