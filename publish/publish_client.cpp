#include "rtmpcast/publish_client.h"

#include "delivery/replies/reply.h"
#include "delivery/write/key_frame.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/connect_handshake.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "publish/command_writer.h"
#include "publish/listen.h"
#include "publish/publisher.h"
#include "rtmpcast/player.h"
#include "state/client.h"
#include "state/server_hold.h"
#include "state/session_list.h"
#include "steady/records.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

namespace {

constexpr const char *kStart = "RtmpPublisherStart";
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

bool IsStopped(const RtmpPublisher *publisher)
{
    return LoadShared(&publisher->StopAsked) != 0 || IsToldToLeave(publisher->Client);
}

// On the steady road the thread is told to leave also where the connection is to blame: a write failed.
bool IsBrokenOff(const RtmpPublisher *publisher)
{
    const SteadyLine *line = publisher->Client->Line;
    const uint8_t end = line != nullptr ? LoadShared(&line->End) : uint8_t{STEADY_GOES_ON};
    const bool isHosts = end == STEADY_END_SESSION || end == STEADY_END_SERVER;
    return end != STEADY_GOES_ON && !isHosts && LoadShared(&publisher->StopAsked) == 0;
}

bool IsError(const RtmpPublisher *publisher)
{
    return strcmp(publisher->Answers.StatusLevel, "error") == 0;
}

// TakeStreamId takes the id from the answer to createStream; other results have none. -1: one that cannot be.
int TakeStreamId(RtmpPublisher *publisher, double id)
{
    if (publisher->CreateStreamTransaction == 0 ||
        publisher->Answers.ResultTransactionId != publisher->CreateStreamTransaction) {
        return 0;
    }
    if (!(id >= 0 && id <= UINT32_MAX)) { // also what is no number
        return -1;
    }
    publisher->Client->StreamId = static_cast<uint32_t>(id);
    publisher->CreateStreamTransaction = 0;
    return 0;
}

// What one message means to whoever awaits `transaction`: 1 not the answer, 0 it is, or the code to return.
int32_t Judge(RtmpPublisher *publisher, const Heard *heard, double transaction)
{
    constexpr int32_t goesOn = 1;
    const PublishCtx *answers = &publisher->Answers;
    switch (heard->Kind) {
    case RTMP_MSG_RESULT:
        if (TakeStreamId(publisher, heard->StreamId) != 0) {
            return RTMP_ERR_CONNECTION;
        }
        return transaction > 0 && answers->ResultTransactionId == transaction ? 0 : goesOn;
    case RTMP_MSG_ERROR:
        return answers->ErrorTransactionId == transaction ? RTMP_ERR_REFUSED : goesOn;
    case RTMP_MSG_ON_STATUS:
        if (IsError(publisher)) {
            return RTMP_ERR_REFUSED;
        }
        return transaction > 0 ? goesOn : 0;
    default:
        return goesOn;
    }
}

// SendStep sends a command of the start. Behind one that did not go out nothing follows, but what the service
// has said may still be heard: it may have refused, and ended the connection before it took everything.
int32_t SendStep(RtmpPublisher *publisher, enum RtmpPublisherCommand command, double *transaction)
{
    const int32_t sent = RtmpPublisherSend(publisher, command, transaction);
    if (sent == RTMP_ERR_CONNECTION) {
        (void)shutdown(publisher->Client->Socket, SHUT_RDWR); // nothing more is waited for
    }
    return sent;
}

int32_t SendAndAwait(RtmpPublisher *publisher, enum RtmpPublisherCommand command)
{
    double transaction = 0;
    const int32_t sent = SendStep(publisher, command, &transaction);
    if (sent == RTMP_FAILED) {
        return sent;
    }
    const int32_t heard = RtmpPublisherAwait(publisher, transaction);
    return sent == 0 || heard == RTMP_ERR_REFUSED ? heard : sent;
}

// The answers that are awaited behind it tell of a connection that has ended.
int32_t SendUnanswered(RtmpPublisher *publisher, enum RtmpPublisherCommand command)
{
    const int32_t sent = SendStep(publisher, command, nullptr);
    return sent == RTMP_ERR_CONNECTION ? 0 : sent;
}

int32_t SendGenerated(RtmpPublisher *publisher, uint32_t kind, const char *who)
{
    return SendReply(publisher->Client, nullptr, kind, kind, &kResponseFailures, who) == 0
               ? 0
               : RTMP_ERR_CONNECTION;
}

struct Step {
    enum RtmpPublisherCommand Command;
    bool IsAwaited;
};

// Services that know neither releaseStream nor FCPublish answer them with an error, or not at all.
constexpr Step kSteps[] = {{RTMP_PUBLISHER_CONNECT, true},
                           {RTMP_PUBLISHER_RELEASE_STREAM, false},
                           {RTMP_PUBLISHER_FC_PUBLISH, false},
                           {RTMP_PUBLISHER_CREATE_STREAM, true},
                           {RTMP_PUBLISHER_PUBLISH, true}};

int32_t AskForStream(RtmpPublisher *publisher)
{
    for (const Step &step : kSteps) {
        const int32_t result =
            step.IsAwaited ? SendAndAwait(publisher, step.Command) : SendUnanswered(publisher, step.Command);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

int32_t SendHeaders(RtmpPublisher *publisher, const RtmpSession *session)
{
    const uint32_t media = LoadShared(&session->MediaKind);
    int32_t result = RtmpPublisherSendMetaData(publisher);
    if (result == 0 && media != RTMP_MEDIA_AUDIO) {
        result = SendGenerated(publisher, RTMP_MSG_VIDEO, kStart);
    }
    return result == 0 && media != RTMP_MEDIA_VIDEO ? SendGenerated(publisher, RTMP_MSG_AUDIO, kStart)
                                                    : result;
}

int32_t StartFrames(RtmpPublisher *publisher, RtmpSession *session)
{
    RtmpClient *client = publisher->Client;
    client->AudioChunkStreamId = client->StatusChunkStreamId + 1; // pictures go on the first of the two
    const int joined = JoinGiven(client, session);
    if (joined != 0) {
        return joined == JOIN_NOT_FOUND ? RTMP_ERR_INVALID_ARGUMENT : RTMP_FAILED;
    }
    StartAnew(client, 0);
    const int32_t result = SendHeaders(publisher, session);
    if (result == 0) {
        SetClientState(client, CLIENT_STATE_PLAY_DONE); // last: from here on every frame goes out
        SendWhatIsHeld(client);
    }
    return result;
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

// LimitWrites has the socket's writes wait at most so long, and returns how long they did before.
struct timeval LimitWrites(const RtmpClient *client, struct timeval limit)
{
    struct timeval before = {};
    socklen_t length = sizeof before;
    (void)getsockopt(client->Socket, SOL_SOCKET, SO_SNDTIMEO, &before, &length); // a socket has it
    (void)setsockopt(client->Socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return before;
}

struct timeval AnswerTime(const RtmpPublisher *publisher)
{
    const uint32_t milliseconds = publisher->Target.AnswerMilliseconds;
    return {static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
}

// Frames wait for the service as the host's socket has it; what comes before them does not.
int32_t Negotiate(RtmpPublisher *publisher)
{
    const struct timeval before = LimitWrites(publisher->Client, AnswerTime(publisher));
    const int32_t shaken = RtmpPublisherHandshake(publisher);
    const int32_t result = shaken == 0 ? AskForStream(publisher) : shaken;
    (void)LimitWrites(publisher->Client, before);
    return result;
}

int32_t Serve(RtmpPublisher *publisher)
{
    constexpr double noTransaction = -1;
    constexpr uint64_t withoutLimit = 0;
    int32_t result = 0;
    while (result >= 0 && !IsStopped(publisher)) {
        Heard heard;
        result = HearMessage(publisher, withoutLimit, &heard);
        if (result == 0 && heard.Kind == RTMP_MSG_ON_STATUS) {
            result = Judge(publisher, &heard, noTransaction);
        }
    }
    if (IsBrokenOff(publisher)) {
        return result < 0 ? result : RTMP_ERR_CONNECTION;
    }
    return IsStopped(publisher) ? 0 : result;
}

// On the default road a frame may wait for the service for ever. 0: nobody writes now.
int AwaitWriter(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    const uint64_t deadline = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    while (RtmpMutexLockSlice(&client->WriteLock) != 0) {
        if (RtmpGetSystemTime() >= deadline) {
            return -1;
        }
    }
    return RtmpMutexUnlock(&client->WriteLock);
}

// A service that takes nothing hears no good-bye, and the frame that waits for it ends.
void SayGoodBye(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    SetClientState(client, CLIENT_STATE_DELETESTREAM); // no frame goes out behind the good-bye
    (void)LimitWrites(client, AnswerTime(publisher));
    if (AwaitWriter(publisher) != 0) {
        (void)shutdown(client->Socket, SHUT_RDWR);
        return;
    }
    (void)RtmpPublisherSend(publisher, RTMP_PUBLISHER_FC_UNPUBLISH,
                            nullptr); // logged; the connection ends anyway
    (void)RtmpPublisherSend(publisher, RTMP_PUBLISHER_DELETE_STREAM, nullptr); // the same
}

// RtmpPublisherStop wakes the publisher's thread, which may free the publisher as soon as it is back.
void AwaitStop(RtmpPublisher *publisher)
{
    (void)RtmpMutexLock(&publisher->StopLock); // made with the record: cannot fail
    (void)RtmpMutexUnlock(&publisher->StopLock);
}

} // namespace

RtmpPublisher *RtmpPublisherCreate(RtmpServer *server, int socket, void *tls,
                                   const RtmpPublisherTarget *target, int *err)
{
    if (server == nullptr || socket < 0 || !IsWhole(target)) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_INVALID_ARGUMENT, err);
    }
    RtmpPublisher *publisher = NewRecord<RtmpPublisher>();
    if (publisher == nullptr) {
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    if (CopyTarget(&publisher->Target, target) == 0) {
        publisher->Client = NewPublisherClient(publisher, server, socket, tls, target->PeerAddress);
    }
    if (publisher->Client == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to the publisher\n",
                     __func__);
        FreeTarget(&publisher->Target);
        free(publisher);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    publisher->StopLock = kFreshMutex;
    HoldServer(server); // also RtmpServerDestroy leaves the record until RtmpPublisherDestroy
    return publisher;
}

int32_t RtmpPublisherHandshake(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    client->ReadsUntil = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    if (ConnectHandshake(client, publisher->Target.IsSigned) != 0) {
        return CodeOfFailedRead(client);
    }
    SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
    return SendGenerated(publisher, RTMP_MSG_SET_CHUNK_SIZE, __func__); // what follows is cut by it
}

int32_t RtmpPublisherAwait(RtmpPublisher *publisher, double transaction)
{
    const uint64_t deadline = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    int32_t result = 1;
    while (result > 0) {
        Heard heard;
        result = HearMessage(publisher, deadline, &heard);
        if (result == 0) {
            result = Judge(publisher, &heard, transaction);
        }
    }
    return result;
}

int32_t RtmpPublisherStart(RtmpPublisher *publisher, RtmpSession *session)
{
    FORGET_THREAD_AT_EXIT RtmpClient *client = ServedHere(publisher);
    const int ready = IsReadySession(client->Server, session);
    if (ready != 1) {
        return ready == 0 ? RTMP_ERR_NO_MEDIA_INFO : RTMP_ERR_INVALID_ARGUMENT;
    }
    const int32_t result = Negotiate(publisher);
    return result == 0 ? StartFrames(publisher, session) : result;
}

int32_t RtmpPublisherServe(RtmpPublisher *publisher)
{
    FORGET_THREAD_AT_EXIT RtmpClient *client = ServedHere(publisher);
    return Serve(publisher);
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
        SayGoodBye(publisher);
    }
    StoreShared(&client->ToldToLeave, uint8_t{1});
    // Wakes the thread. The peer sees nothing of an end of reading; one that is not heard out yet sees an
    // end.
    (void)shutdown(client->Socket, isPublishing ? SHUT_RD : SHUT_RDWR);
}

void RtmpPublisherDestroy(RtmpPublisher *publisher)
{
    if (publisher == nullptr) {
        return;
    }
    RtmpServer *server = publisher->Client->Server;
    AwaitStop(publisher);
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
