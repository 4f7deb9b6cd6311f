#include "core/session_end.h"

#include "delivery/senders/threaded_queue.h"
#include "delivery/steady/steady_sender.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "state/client.h"
#include "state/client_list.h"
#include "state/client_signal.h"
#include "state/frame_under_way.h"
#include "steady/line.h"

namespace {

constexpr const char *kDestroy = "RtmpSessionDestroy";
constexpr int kSlicesBeforeAll = 50;
constexpr int32_t kPublishStateSessionGone = 8;

// A client whose thread is being ended. The record may be gone as soon as no lock is held.
struct EndingClient {
    RtmpClient *Client;
    RtmpThread Thread;
    bool IsCaller; // the thread is the one that destroys the session
    bool Claimed;  // the thread is this session's to join
};

bool IsMember(const RtmpSession *session, const RtmpClient *client)
{
    for (const RtmpClient *each = session->MemberHead; each != nullptr; each = each->NextMember) {
        if (each == client) {
            return true;
        }
    }
    return false;
}

void PressMembers(RtmpSession *session, int slices)
{
    SignalMembers(session);
    if (slices >= SLICES_OF_SIGNALS) {
        ShutStuckWrites(session);
    }
}

// LockClientList takes ClientListLock. A serve thread may hold it while it writes to a player that takes
// nothing: a signal ends the write.
int LockClientList(RtmpSession *session)
{
    int result = RtmpMutexLockSlice(&session->ClientListLock);
    for (int slices = 0; result == RTMP_WAIT_IS_UP; slices++) {
        PressMembers(session, slices);
        result = RtmpMutexLockSlice(&session->ClientListLock);
    }
    return result;
}

// PressClient makes what the client's thread waits in fail. A thread of the host's own, whose handle the
// record does not have, has been told of the end of its session, and ends its reads itself. The caller holds
// MemberLock.
void PressClient(RtmpClient *client)
{
    if (LoadShared(&client->ServeThread) != 0) {
        EndReading(client);
        SignalClient(client);
    }
}

// One slice of waiting for the client to leave. False once it has; it may then be freed.
bool IsStillMember(RtmpSession *session, RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (!IsMember(session, client)) {
        return false;
    }
    (void)RtmpConditionWaitSlice(&session->MemberLeft, &session->MemberLock); // the look below decides
    if (!IsMember(session, client)) {
        return false;
    }
    PressClient(client);
    return true;
}

// WaitUntilLeft returns when the client is no member any more. Its reads have ended; a write that blocks is
// ended by a signal, which is repeated: one that arrives between two calls interrupts nothing. A client that
// cannot leave is waiting for another one that is stuck in a write, so that in the end all are signalled.
void WaitUntilLeft(RtmpSession *session, RtmpClient *client)
{
    for (int slices = 0; IsStillMember(session, client); slices++) {
        if (slices >= kSlicesBeforeAll) {
            PressMembers(session, slices);
        }
    }
}

// PassThrough returns when whoever held the lock has let go of it. One that cannot be taken is asked for
// again: what it lies in goes next.
void PassThrough(RtmpMutex *lock)
{
    constexpr int tries = 3;
    for (int i = 0; i < tries; i++) {
        if (RtmpMutexLock(lock) == 0) {
            (void)RtmpMutexUnlock(lock); // taken a moment ago
            return;
        }
    }
}

// ClaimThread decides who ends the client's thread: true when it is this session, which then joins it; false
// when the thread is on its way out by itself, or has not said yet which one it is. The caller holds
// MemberLock.
bool ClaimThread(RtmpClient *client, RtmpThread thread)
{
    if (thread == 0 || client->ThreadOwner != THREAD_OWNER_NOBODY) {
        return false;
    }
    StoreShared(&client->ThreadOwner, static_cast<uint8_t>(THREAD_OWNER_SESSION));
    return true;
}

// LetGoOfThread gives a claim back: nobody will join the thread.
void LetGoOfThread(RtmpSession *session, const EndingClient *ending)
{
    if (!ending->Claimed) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (IsMember(session, ending->Client)) {
        StoreShared(&ending->Client->ThreadOwner, static_cast<uint8_t>(THREAD_OWNER_ITSELF));
    }
    (void)RtmpThreadDetach(ending->Thread); // claimed, so that it has not detached itself
}

// The caller holds ClientListLock. The thread that destroys the session does not wait for itself, and serves
// its client as before when the destroy has failed.
EndingClient TellToLeave(RtmpSession *session, RtmpClient *client)
{
    EndingClient ending = {client, LoadShared(&client->ServeThread), false, false};
    ending.IsCaller = ending.Thread != 0 && pthread_equal(ending.Thread, pthread_self()) != 0;
    if (client->PublishCtx != nullptr) {
        WITHOUT_CANCEL int restore = ForbidCancel();
        publishChangeState(client, kPublishStateSessionGone);
    }
    RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_INFO, "INFO: %s: Sending SIGUSR1 to Client Thread\n",
                 kDestroy);
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (ending.IsCaller) {
        SignalClient(client);
        return ending;
    }
    ending.Claimed = ClaimThread(client, ending.Thread);
    StoreShared(&client->Awaited, static_cast<uint8_t>(1));
    PressClient(client);
    return ending;
}

// No text, or that of what failed, with its code.
LogText WaitForThread(RtmpSession *session, const EndingClient *ending, int *code)
{
    if (ending->Thread != 0) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_INFO, "INFO: %s: Waiting for Thread Completion\n",
                     kDestroy);
    }
    if (!ending->IsCaller) {
        WaitUntilLeft(session, ending->Client);
    }
    // Joining oneself fails.
    const bool joins = ending->Claimed || ending->IsCaller;
    if (joins && RtmpWaitForThreadCompletion(ending->Thread) != 0) {
        *code = RTMP_ERR_THREAD_JOIN;
        return LOG_TEXT("ERROR: %s: Wait For serve client thread Failed\n");
    }
    return {};
}

// EndFirstClient ends the serve thread of the first client. Null, or the text of what failed, with its code.
LogText EndFirstClient(RtmpSession *session, int *code)
{
    if (LockClientList(session) != 0) {
        *code = RTMP_ERR_LOCK;
        return LOG_TEXT("ERROR: %s: Cannot lock Rtmp client list\n");
    }
    EndingClient ending = {};
    RtmpClient *first = FirstMember(session); // it may have left since the caller looked
    if (first != nullptr) {
        ending = TellToLeave(session, first);
    }
    if (RtmpMutexUnlock(&session->ClientListLock) != 0) {
        LetGoOfThread(session, &ending);
        *code = RTMP_ERR_UNLOCK;
        return LOG_TEXT("ERROR: %s: Cannot unlock Rtmp client list\n");
    }
    return first != nullptr ? WaitForThread(session, &ending, code) : LogText{};
}

// Connections that the library has accepted on the steady road end their threads themselves. The caller holds
// MemberLock.
bool HasLeavingMember(const RtmpSession *session)
{
    const RtmpClient *each = session->MemberHead;
    while (each != nullptr && each->ThreadOwner != THREAD_OWNER_ITSELF) {
        each = each->NextMember;
    }
    return each != nullptr;
}

// EndSteadyClients tells all of them at once, and returns when they have left.
void EndSteadyClients(RtmpSession *session)
{
    EndPlayers(session->Stream);
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    while (HasLeavingMember(session)) {
        (void)RtmpConditionWaitSlice(&session->MemberLeft, &session->MemberLock); // the look decides
    }
}

} // namespace

void StopFrames(RtmpSession *session)
{
    RefuseFrames(session);
    for (int slices = 0; PressFrame(session, slices); slices++) {
    }
    if (session->Stream != nullptr) {
        StopSteadySender(session->Stream);
    } else if (session->SenderMode == RTMP_SENDER_THREADED) {
        RtmpThreadedQueueStop(session);
    }
}

LogText EndClients(RtmpSession *session, int *code)
{
    if (session->Stream != nullptr) {
        EndSteadyClients(session);
    }
    while (FirstMember(session) != nullptr) {
        const LogText failure = EndFirstClient(session, code);
        if (failure.Format != nullptr) {
            return failure;
        }
    }
    // The last to leave may not have given the locks back yet.
    PassThrough(&session->ClientListLock);
    PassThrough(&session->MemberLock);
    return {};
}
