#include "net/log_line.h"
#include "rtmpcast/server.h"

#include "core/session_end.h"
#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "delivery/steady/steady_sender.h"
#include "media/media_info.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "state/frame_under_way.h"
#include "state/session_list.h"
#include "steady/message_ring.h"

namespace {

// The session takes the steady road.
int OpenStream(RtmpSession *session)
{
    session->Stream = NewSteadyStream(session->Server->Service, session);
    return session->Stream != nullptr ? NewSteadySender(session->Stream) : -1;
}

void CloseStream(RtmpSession *session)
{
    if (session->Stream != nullptr) {
        FreeSteadySender(session->Stream);
        FreeSteadyStream(session->Stream);
    }
}

// FillSession allocates what a session owns. No text, or that of what failed; the caller frees the record.
LogText FillSession(RtmpSession *session, RtmpServer *server, const char *name)
{
    session->MediaKind = RTMP_MEDIA_NONE;
    session->Server = server;
    session->StartTime = RtmpGetSystemTime();
    session->MemberLock = kFreshMutex;
    (void)RtmpConditionInit(&session->MemberLeft); // of valid attributes: cannot fail
    session->Name = CopyOfText(name, strlen(name));
    if (session->Name == nullptr) {
        return LOG_TEXT("ERROR: %s: Cannot allocate memory to session name\n");
    }
    session->CcGen = NewRecord<RtmpCaptionCtx>();
    if (session->CcGen == nullptr) {
        return LOG_TEXT("ERROR: %s: Cannot allocate memory for CC\n");
    }
    if (server->Service != nullptr && OpenStream(session) != 0) {
        return LOG_TEXT("ERROR: %s: Cannot allocate memory to the session's frames\n");
    }
    WITHOUT_CANCEL int restore = ForbidCancel();
    session->CcGen->Handle = cc_gen_init();
    return {};
}

void FreeSession(RtmpSession *session)
{
    CloseStream(session);
    free(session->Pieces);
    free(session->CcGen);
    free(session->Name);
    free(session);
}

void EndMediaAndSender(RtmpSession *session)
{
    if (session->CcGen != nullptr) {
        WITHOUT_CANCEL int restore = ForbidCancel();
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
    const LogText failure = FillSession(session, server, name);
    if (failure.Format != nullptr) {
        LogLine(logger, RTMP_LOG_ERROR, failure, __func__);
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
    WITHOUT_CANCEL int restore = ForbidCancel();
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
    // Whoever sends frames may be stuck in a write to a player that takes nothing, and holds the session list
    // meanwhile.
    StopFrames(session);
    if (RtmpMutexLock(&server->LiveSessionListLock) != 0) {
        AllowFrames(session);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n", __func__);
        return RTMP_ERR_LOCK;
    }
    int code = 0;
    const LogText failure = EndClients(session, &code);
    if (failure.Format != nullptr) {
        LogLine(logger, RTMP_LOG_ERROR, failure, __func__);
        (void)RtmpMutexUnlock(&server->LiveSessionListLock); // the failure above is the one to report
        AllowFrames(session);
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
