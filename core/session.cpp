#include "rtmpcast/server.h"

#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "media/media_info.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "rtmpcast/sender.h"
#include "state/client.h"
#include "state/client_list.h"
#include "state/client_signal.h"
#include "state/session_list.h"

#include <signal.h>

namespace {

constexpr int kSlicesBeforeAll = 100;
constexpr int32_t kPublishStateSessionGone = 8;

// FillSession allocates what a session owns. Null, or the text of what failed; the caller frees the record.
const char *FillSession(RtmpSession *session, RtmpServer *server, const char *name)
{
    session->MediaKind = RTMP_MEDIA_NONE;
    session->Server = server;
    session->StartTime = RtmpGetSystemTime();
    session->MemberLock = kFreshMutex;
    (void)RtmpConditionInit(&session->MemberLeft); // of valid attributes: cannot fail
    session->Name = CopyOfText(name, strlen(name));
    if (session->Name == nullptr) {
        return "ERROR: %s: Cannot allocate memory to session name\n";
    }
    session->CcGen = NewRecord<RtmpCaptionCtx>();
    if (session->CcGen == nullptr) {
        return "ERROR: %s: Cannot allocate memory for CC\n";
    }
    session->CcGen->Handle = cc_gen_init();
    return nullptr;
}

void FreeSession(RtmpSession *session)
{
    free(session->Pieces);
    free(session->CcGen);
    free(session->Name);
    free(session);
}

bool IsMember(const RtmpSession *session, const RtmpClient *client)
{
    for (const RtmpClient *each = session->MemberHead; each != nullptr; each = each->NextMember) {
        if (each == client) {
            return true;
        }
    }
    return false;
}

// LockClientList takes ClientListLock. A serve thread may hold it while it writes to a player that takes
// nothing: a signal ends the write.
int LockClientList(RtmpSession *session)
{
    int result = RtmpMutexLockSlice(&session->ClientListLock);
    while (result == RTMP_WAIT_IS_UP) {
        SignalMembers(session);
        result = RtmpMutexLockSlice(&session->ClientListLock);
    }
    return result;
}

// One slice of waiting for the client to leave. False once it has; it may then be freed.
bool IsStillMember(RtmpSession *session, const RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (!IsMember(session, client)) {
        return false;
    }
    (void)RtmpConditionWaitSlice(&session->MemberLeft, &session->MemberLock); // the look below decides
    if (!IsMember(session, client)) {
        return false;
    }
    SignalClient(client);
    return true;
}

// WaitUntilLeft returns when the client is no member any more. The signal is repeated: one that arrives
// between two reads interrupts nothing. A client that cannot leave is waiting for another one that is stuck
// in a write, so that in the end all are signalled.
void WaitUntilLeft(RtmpSession *session, const RtmpClient *client)
{
    for (int slices = 0; IsStillMember(session, client); slices++) {
        if (slices >= kSlicesBeforeAll) {
            SignalMembers(session);
        }
    }
}

// PassThrough returns when the thread that held the lock has released it.
void PassThrough(RtmpMutex *lock)
{
    if (RtmpMutexLock(lock) == 0) {
        (void)RtmpMutexUnlock(lock); // taken a moment ago
    }
}

// ClaimThread decides who ends the client's thread: true when it is this session, which then joins it; false
// when the thread is on its way out by itself.
bool ClaimThread(RtmpSession *session, RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (client->ThreadOwner == THREAD_OWNER_ITSELF) {
        return false;
    }
    StoreShared(&client->ThreadOwner, static_cast<uint8_t>(THREAD_OWNER_SESSION));
    return true;
}

// EndFirstClient ends the serve thread of the first client. The text of what failed, with its code; or null.
const char *EndFirstClient(RtmpSession *session, int *code)
{
    constexpr const char *who = "RtmpSessionDestroy";
    RtmpLogger *logger = LoggerOf(session->Server);
    if (LockClientList(session) != 0) {
        *code = RTMP_ERR_LOCK;
        return "ERROR: %s: Cannot lock Rtmp client list\n";
    }
    RtmpClient *client = FirstMember(session); // it may have left since the caller looked
    RtmpThread thread = 0;
    bool claimed = false;
    if (client != nullptr) {
        thread = LoadShared(&client->ServeThread);
        if (client->PublishCtx != nullptr) {
            publishChangeState(client, kPublishStateSessionGone);
        }
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Sending SIGUSR1 to Client Thread\n", who);
        claimed = ClaimThread(session, client);
        if (thread != 0) {
            pthread_kill(thread, SIGUSR1);
        }
    }
    if (RtmpMutexUnlock(&session->ClientListLock) != 0) {
        *code = RTMP_ERR_UNLOCK;
        return "ERROR: %s: Cannot unlock Rtmp client list\n";
    }
    if (client == nullptr) {
        return nullptr;
    }
    if (thread != 0) {
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Waiting for Thread Completion\n", who);
    }
    WaitUntilLeft(session, client);
    if (claimed && RtmpWaitForThreadCompletion(thread) != 0) {
        *code = RTMP_ERR_THREAD_JOIN;
        return "ERROR: %s: Wait For serve client thread Failed\n";
    }
    return nullptr;
}

const char *EndClients(RtmpSession *session, int *code)
{
    while (FirstMember(session) != nullptr) {
        const char *failure = EndFirstClient(session, code);
        if (failure != nullptr) {
            return failure;
        }
    }
    // The last to leave may not have given the locks back yet.
    PassThrough(&session->ClientListLock);
    PassThrough(&session->MemberLock);
    return nullptr;
}

void EndMediaAndSender(RtmpSession *session)
{
    if (session->CcGen != nullptr) {
        cc_gen_close(session->CcGen->Handle);
        free(session->CcGen);
        session->CcGen = nullptr;
    }
    FreeCodecInfo(session->CodecInfo);
    FreeCodecInfo(session->RetiredCodecInfo);
    session->CodecInfo = nullptr;
    session->RetiredCodecInfo = nullptr;
    if (session->SenderMode == RTMP_SENDER_THREADED) {
        (void)RtmpThreadedQueueDestroy(session); // always 0
    } else {
        (void)RtmpMonitorDestroy(session); // always 0
    }
}

void LogFailure(RtmpServer *server, const char *format, const char *who)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // one of the texts above, each with one %s
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, format, who);
#pragma GCC diagnostic pop
}

} // namespace

RtmpSession *RtmpSessionCreate(RtmpServer *server, const char *name, int *err)
{
    RtmpLogger *logger = LoggerOf(server);
    if (server == nullptr || name == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_INVALID_ARGUMENT, err);
    }
    if (IsSessionNameExists(server, name) == 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_SESSION_EXISTS, err);
    }
    RtmpSession *session = NewRecord<RtmpSession>();
    if (session == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to rtmpSession\n", __func__);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    const char *failure = FillSession(session, server, name);
    if (failure != nullptr) {
        LogFailure(server, failure, __func__);
        FreeSession(session);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    if (RtmpMutexInit(&session->ClientListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot initialize client list lock\n", __func__);
        FreeSession(session);
        return FailCreate(RTMP_ERR_LOCK_INIT, err);
    }
    if (RtmpMutexLock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n", __func__);
        FreeSession(session);
        return FailCreate(RTMP_ERR_LOCK, err);
    }
    LinkSession(server, session);
    if (RtmpMutexUnlock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp session list\n", __func__);
        UnlinkSession(server, session); // the list must not hold a freed session
        FreeSession(session);
        return FailCreate(RTMP_ERR_UNLOCK, err);
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Session Created with name '%s'\n", __func__, name);
    KelvoraSyslog("RTMP", "Session Created with name '%s'\n", name);
    return session;
}

int RtmpSessionDestroy(RtmpSession *session)
{
    if (session == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    RtmpServer *server = session->Server;
    RtmpLogger *logger = LoggerOf(server);
    // The session's own sender thread may be stuck in a write to a player that takes nothing, and it holds
    // the session list meanwhile.
    if (session->SenderMode == RTMP_SENDER_THREADED) {
        (void)RtmpThreadedQueueClose(session); // always 0
    }
    if (RtmpMutexLock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n", __func__);
        return RTMP_ERR_LOCK;
    }
    int code = 0;
    const char *failure = EndClients(session, &code);
    if (failure != nullptr) {
        LogFailure(server, failure, __func__);
        (void)RtmpMutexUnlock(&server->LiveSessionListLock); // the failure above is the one to report
        return code;
    }
    EndMediaAndSender(session);
    UnlinkSession(server, session);
    if (RtmpMutexUnlock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp session list\n", __func__);
        return RTMP_ERR_UNLOCK;
    }
    if (RtmpMutexDestroy(&session->ClientListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot destroy client list lock\n", __func__);
        return RTMP_ERR_LOCK_DESTROY;
    }
    FreeSession(session);
    return 0;
}
