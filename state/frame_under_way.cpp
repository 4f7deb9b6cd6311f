#include "state/frame_under_way.h"

#include "net/platform.h"
#include "net/scope.h"
#include "state/client_signal.h"

#include <signal.h>

namespace {

// The caller holds MemberLock.
bool IsUnderWay(const RtmpSession *session)
{
    return session->FrameThread != 0 && pthread_equal(session->FrameThread, pthread_self()) == 0;
}

bool SignalFrameThread(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (!IsUnderWay(session)) {
        return false;
    }
    (void)RtmpConditionWaitSlice(&session->MemberLeft, &session->MemberLock); // the look below decides
    if (!IsUnderWay(session)) {
        return false;
    }
    pthread_kill(session->FrameThread, SIGUSR1); // it has not ended: it takes itself off first
    return true;
}

void SetRefused(RtmpSession *session, uint8_t refused)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    session->FramesRefused = refused;
}

} // namespace

int BeginFrame(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (session->FramesRefused != 0) {
        return -1;
    }
    session->FrameThread = pthread_self();
    return 0;
}

void EndFrame(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (pthread_equal(session->FrameThread, pthread_self()) != 0) {
        session->FrameThread = 0;
        pthread_cond_broadcast(&session->MemberLeft);
    }
}

void RefuseFrames(RtmpSession *session)
{
    SetRefused(session, 1);
}

void AllowFrames(RtmpSession *session)
{
    SetRefused(session, 0);
}

bool PressFrame(RtmpSession *session, int slices)
{
    if (!SignalFrameThread(session)) {
        return false;
    }
    if (slices >= SLICES_OF_SIGNALS) {
        ShutStuckWrites(session);
    }
    return true;
}
