#include "rtmpcast/publish_client.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "publish/good_bye.h"
#include "publish/listen.h"
#include "publish/publisher.h"
#include "publish/start.h"
#include "rtmpcast/player.h"
#include "state/client.h"
#include "state/server_hold.h"
#include "steady/line_end.h"

#include <string.h>
#include <sys/socket.h>

namespace {

constexpr uint32_t kAnswerMilliseconds = 10000;
constexpr uint64_t kLongestText = UINT16_MAX;                   // AMF0, 2.4
constexpr char kFlashVer[] = "FMLE/3.0 (compatible; rtmpcast)"; // services look for the first word

bool IsText(const char *text)
{
    return text != nullptr && strlen(text) <= kLongestText;
}

bool IsWhole(const RtmpPublisherTarget *target)
{
    return target != nullptr && IsText(target->App) && IsText(target->TcUrl) && IsText(target->Key) &&
           (target->FlashVer == nullptr || IsText(target->FlashVer));
}

char *CopyOf(const char *text)
{
    return CopyOfText(text, strlen(text));
}

void FreeTarget(RtmpPublisherTarget *target)
{
    free(const_cast<char *>(target->App));
    free(const_cast<char *>(target->TcUrl));
    free(const_cast<char *>(target->Key));
    free(const_cast<char *>(target->FlashVer));
    *target = {};
}

int CopyTarget(RtmpPublisherTarget *copy, const RtmpPublisherTarget *target)
{
    *copy = {};
    copy->App = CopyOf(target->App);
    copy->TcUrl = CopyOf(target->TcUrl);
    copy->Key = CopyOf(target->Key);
    copy->FlashVer = CopyOf(target->FlashVer != nullptr ? target->FlashVer : kFlashVer);
    copy->AnswerMilliseconds =
        target->AnswerMilliseconds != 0 ? target->AnswerMilliseconds : kAnswerMilliseconds;
    copy->IsSigned = target->IsSigned;
    const bool isWhole =
        copy->App != nullptr && copy->TcUrl != nullptr && copy->Key != nullptr && copy->FlashVer != nullptr;
    return isWhole ? 0 : -1;
}

RtmpClient *NewPublisherClient(RtmpPublisher *publisher, RtmpServer *server, int socket, void *tls,
                               const char *peerAddress)
{
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, socket,
                                             peerAddress != nullptr ? peerAddress : "0.0.0.0", 0, tls);
    if (client != nullptr) {
        client->PlayerFlags = RTMP_PLAYERS_ALL;
        client->PublishCtx = &publisher->Answers;
        client->ThreadOwner = THREAD_OWNER_HOST;
    }
    return client;
}

RtmpPublisher *NewPublisher(RtmpServer *server, int socket, void *tls, const RtmpPublisherTarget *target)
{
    RtmpPublisher *publisher = NewRecord<RtmpPublisher>();
    if (publisher == nullptr) {
        return nullptr;
    }
    publisher->StopLock = kFreshMutex;
    if (CopyTarget(&publisher->Target, target) == 0) {
        publisher->Client = NewPublisherClient(publisher, server, socket, tls, target->PeerAddress);
    }
    if (publisher->Client == nullptr) {
        FreeTarget(&publisher->Target);
        free(publisher);
        return nullptr;
    }
    return publisher;
}

bool IsStopped(const RtmpPublisher *publisher)
{
    return LoadShared(&publisher->StopAsked) != 0 || IsToldToLeave(publisher->Client);
}

// On the steady road the thread is told to leave also where the connection is to blame: a write failed.
bool IsBrokenOff(const RtmpPublisher *publisher)
{
    const SteadyLine *line = publisher->Client->Line;
    return line != nullptr && HasFailed(line) && LoadShared(&publisher->StopAsked) == 0;
}

// A thread that is in the library is woken when its session ends; one that is back in the host may end
// itself, and its handle be another's.
void SetThread(RtmpClient *client, RtmpThread thread)
{
    RtmpSession *session = client->Session;
    UNLOCK_AT_EXIT RtmpMutex *held = session != nullptr ? HoldLeaf(&session->MemberLock) : nullptr;
    StoreShared(&client->ServeThread, thread);
}

void ForgetThread(RtmpClient **client)
{
    SetThread(*client, 0);
}

#define FORGET_THREAD_AT_EXIT __attribute__((cleanup(ForgetThread), unused))

RtmpClient *ServedHere(RtmpPublisher *publisher)
{
    SetThread(publisher->Client, RtmpGetSelfThreadHandle());
    return publisher->Client;
}

int32_t Serve(RtmpPublisher *publisher)
{
    constexpr uint64_t withoutLimit = UINT64_MAX; // and yet with looks at a stop
    int32_t result = 0;
    while (result >= 0 && !IsStopped(publisher)) {
        Heard heard;
        result = HearMessage(publisher, withoutLimit, &heard);
        if (result == 0 && heard.Kind == RTMP_MSG_ON_STATUS) {
            result = JudgeHeard(publisher, &heard, kNoTransaction);
        }
    }
    if (IsBrokenOff(publisher)) {
        return result < 0 ? result : RTMP_ERR_CONNECTION;
    }
    return IsStopped(publisher) ? 0 : result;
}

} // namespace

RtmpPublisher *RtmpPublisherCreate(RtmpServer *server, int socket, void *tls,
                                   const RtmpPublisherTarget *target, int *err)
{
    if (server == nullptr || socket < 0 || !IsWhole(target)) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_INVALID_ARGUMENT, err);
    }
    RtmpPublisher *publisher = NewPublisher(server, socket, tls, target);
    if (publisher == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to the publisher\n",
                     __func__);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    HoldServer(server); // also RtmpServerDestroy leaves the record until RtmpPublisherDestroy
    return publisher;
}

int32_t RtmpPublisherStart(RtmpPublisher *publisher, RtmpSession *session)
{
    FORGET_THREAD_AT_EXIT RtmpClient *client = ServedHere(publisher);
    return StartPublishing(publisher, session);
}

int32_t RtmpPublisherServe(RtmpPublisher *publisher)
{
    FORGET_THREAD_AT_EXIT RtmpClient *client = ServedHere(publisher);
    const int32_t result = Serve(publisher);
    EndGoodBye(publisher);
    return result;
}

void RtmpPublisherStop(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    (void)RtmpMutexLock(&publisher->StopLock); // made with the record: cannot fail
    UNLOCK_AT_EXIT RtmpMutex *held = &publisher->StopLock;
    if (LoadShared(&publisher->StopAsked) != 0) {
        return;
    }
    StoreShared(&publisher->StopAsked, uint8_t{1});
    const bool isPublishing = ClientStateOf(client) == CLIENT_STATE_PLAY_DONE;
    if (isPublishing) {
        BeginGoodBye(publisher);
    }
    StoreShared(&client->ToldToLeave, uint8_t{1}); // the thread looks at it between two waits
    // A service that is not heard out yet sees the connection end. One that has had its good-bye may still
    // send something: where the reading side has ended that would reset the connection, and the service might
    // lose what it has not read yet.
    if (!isPublishing) {
        (void)shutdown(client->Socket, SHUT_RDWR);
    }
}

void RtmpPublisherDestroy(RtmpPublisher *publisher)
{
    if (publisher == nullptr) {
        return;
    }
    RtmpServer *server = publisher->Client->Server;
    AwaitStop(publisher); // it has woken the publisher's thread, which may be here already
    if (DestroyRtmpClient(publisher->Client) != 0) {
        FreeClientRecord(publisher->Client);
    }
    FreeTarget(&publisher->Target);
    free(publisher);
    (void)ReleaseServer(server); // a failure is logged
}

const PublishCtx *RtmpPublisherAnswers(const RtmpPublisher *publisher)
{
    return &publisher->Answers;
}

RtmpClient *RtmpPublisherClient(RtmpPublisher *publisher)
{
    return publisher->Client;
}
