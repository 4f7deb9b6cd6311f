#include "rtmpcast/publish_client.h"

#include "delivery/replies/reply.h"
#include "delivery/write/key_frame.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/connect_handshake.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "publish/command_writer.h"
#include "publish/listen.h"
#include "publish/publisher.h"
#include "rtmpcast/player.h"
#include "state/client.h"
#include "state/session_list.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

namespace {

constexpr uint32_t kAnswerMilliseconds = 10000;
constexpr char kFlashVer[] = "FMLE/3.0 (compatible; rtmpcast)"; // services look for the first word

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

RtmpClient *NewClient(RtmpPublisher *publisher, RtmpServer *server, int socket, void *tls,
                      const char *peerAddress)
{
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, socket,
                                             peerAddress != nullptr ? peerAddress : "0.0.0.0", 0, tls);
    if (client != nullptr) {
        client->PlayerFlags = RTMP_PLAYERS_ALL;
        client->PublishCtx = &publisher->Answers;
        client->ThreadOwner = THREAD_OWNER_ITSELF; // the host's, to be woken and not to be joined
    }
    return client;
}

bool IsStopped(const RtmpPublisher *publisher)
{
    return LoadShared(&publisher->StopAsked) != 0 || IsToldToLeave(publisher->Client);
}

bool IsError(const RtmpPublisher *publisher)
{
    return strcmp(publisher->Answers.StatusLevel, "error") == 0;
}

// An answer to createStream. Ids are small whole numbers.
void NoteStreamId(RtmpPublisher *publisher, const Heard *heard)
{
    const double id = heard->StreamId;
    if (heard->Kind == RTMP_MSG_RESULT && publisher->CreateStreamTransaction > 0 &&
        publisher->Answers.ResultTransactionId == publisher->CreateStreamTransaction && id >= 0 &&
        id <= UINT32_MAX) {
        publisher->Client->StreamId = static_cast<uint32_t>(id);
        publisher->CreateStreamTransaction = 0;
    }
}

// What one message means to whoever awaits `transaction`: 1 not the answer, 0 it is, or the code to return.
int32_t Judge(RtmpPublisher *publisher, const Heard *heard, double transaction)
{
    constexpr int32_t goesOn = 1;
    const PublishCtx *answers = &publisher->Answers;
    switch (heard->Kind) {
    case RTMP_MSG_RESULT:
        NoteStreamId(publisher, heard);
        return transaction > 0 && answers->ResultTransactionId == transaction ? 0 : goesOn;
    case RTMP_MSG_ERROR:
        return transaction > 0 && answers->ErrorTransactionId == transaction ? RTMP_ERR_REFUSED : goesOn;
    case RTMP_MSG_ON_STATUS:
        if (IsError(publisher)) {
            return RTMP_ERR_REFUSED;
        }
        return transaction > 0 ? goesOn : 0;
    default:
        return goesOn;
    }
}

int32_t SendAndAwait(RtmpPublisher *publisher, enum RtmpPublisherCommand command)
{
    double transaction = 0;
    const int32_t sent = RtmpPublisherSend(publisher, command, &transaction);
    return sent == 0 ? RtmpPublisherAwait(publisher, transaction) : sent;
}

int32_t SendUnanswered(RtmpPublisher *publisher, enum RtmpPublisherCommand command)
{
    return RtmpPublisherSend(publisher, command, nullptr);
}

int32_t SendGenerated(RtmpPublisher *publisher, uint32_t kind)
{
    return SendReply(publisher->Client, nullptr, kind, kind, &kResponseFailures, "RtmpPublisherStart");
}

// Services that know neither releaseStream nor FCPublish answer them with an error, or not at all.
int32_t AskForStream(RtmpPublisher *publisher)
{
    int32_t result = SendGenerated(publisher, RTMP_MSG_SET_CHUNK_SIZE);
    if (result == 0) {
        result = SendAndAwait(publisher, RTMP_PUBLISHER_CONNECT);
    }
    if (result == 0) {
        result = SendUnanswered(publisher, RTMP_PUBLISHER_RELEASE_STREAM);
    }
    if (result == 0) {
        result = SendUnanswered(publisher, RTMP_PUBLISHER_FC_PUBLISH);
    }
    if (result == 0) {
        result = SendAndAwait(publisher, RTMP_PUBLISHER_CREATE_STREAM);
    }
    return result == 0 ? SendAndAwait(publisher, RTMP_PUBLISHER_PUBLISH) : result;
}

int32_t SendHeaders(RtmpPublisher *publisher, const RtmpSession *session)
{
    const uint32_t media = LoadShared(&session->MediaKind);
    int32_t result = RtmpPublisherSendMetaData(publisher);
    if (result == 0 && media != RTMP_MEDIA_AUDIO) {
        result = SendGenerated(publisher, RTMP_MSG_VIDEO);
    }
    return result == 0 && media != RTMP_MEDIA_VIDEO ? SendGenerated(publisher, RTMP_MSG_AUDIO) : result;
}

int32_t StartFrames(RtmpPublisher *publisher, RtmpSession *session)
{
    RtmpClient *client = publisher->Client;
    client->AudioChunkStreamId = client->StatusChunkStreamId + 1; // pictures go on the first of the two
    if (AddClientInSession(session, client) != 0) {
        return RTMP_FAILED;
    }
    StartAnew(client, 0);
    const int32_t result = SendHeaders(publisher, session);
    if (result == 0) {
        SetClientState(client, CLIENT_STATE_PLAY_DONE); // last: from here on every frame goes out
        SendWhatIsHeld(client);
    }
    return result;
}

int32_t CodeOf(const RtmpPublisher *publisher, int32_t result)
{
    return IsStopped(publisher) ? 0 : result;
}

} // namespace

RtmpPublisher *RtmpPublisherCreate(RtmpServer *server, int socket, void *tls,
                                   const RtmpPublisherTarget *target, int *err)
{
    if (server == nullptr || target == nullptr || target->App == nullptr || target->TcUrl == nullptr ||
        target->Key == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_INVALID_ARGUMENT, err);
    }
    RtmpPublisher *publisher = NewRecord<RtmpPublisher>();
    if (publisher == nullptr) {
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    if (CopyTarget(&publisher->Target, target) == 0) {
        publisher->Client = NewClient(publisher, server, socket, tls, target->PeerAddress);
    }
    if (publisher->Client == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to the publisher\n",
                     __func__);
        FreeTarget(&publisher->Target);
        free(publisher);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    return publisher;
}

int32_t RtmpPublisherHandshake(RtmpPublisher *publisher)
{
    const uint64_t start = RtmpGetSystemTime();
    const uint32_t limit = publisher->Target.AnswerMilliseconds;
    LimitReads(publisher, limit);
    if (ConnectHandshake(publisher->Client, publisher->Target.IsSigned) == 0) {
        SetClientState(publisher->Client, CLIENT_STATE_HANDSHAKE_DONE);
        return 0;
    }
    return RtmpGetSystemTime() - start >= limit ? RTMP_ERR_NO_ANSWER : RTMP_ERR_CONNECTION;
}

int32_t RtmpPublisherAwait(RtmpPublisher *publisher, double transaction)
{
    const uint64_t deadline = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    int32_t result = 1;
    while (result > 0) {
        const uint64_t now = RtmpGetSystemTime();
        if (now >= deadline) {
            return RTMP_ERR_NO_ANSWER;
        }
        Heard heard;
        result = HearMessage(publisher, static_cast<uint32_t>(deadline - now), &heard);
        if (result == 0) {
            result = Judge(publisher, &heard, transaction);
        }
    }
    return result;
}

int32_t RtmpPublisherStart(RtmpPublisher *publisher, RtmpSession *session)
{
    StoreShared(&publisher->Client->ServeThread, RtmpGetSelfThreadHandle());
    if (LoadShared(&session->MediaInfoAdded) != 1) {
        return RTMP_ERR_NO_MEDIA_INFO;
    }
    int32_t result = RtmpPublisherHandshake(publisher);
    if (result == 0) {
        result = AskForStream(publisher);
    }
    return result == 0 ? StartFrames(publisher, session) : result;
}

int32_t RtmpPublisherServe(RtmpPublisher *publisher)
{
    constexpr double noTransaction = -1;
    StoreShared(&publisher->Client->ServeThread, RtmpGetSelfThreadHandle());
    while (!IsStopped(publisher)) {
        Heard heard;
        int32_t result = HearMessage(publisher, 0, &heard);
        if (result == 0 && heard.Kind == RTMP_MSG_ON_STATUS) {
            result = Judge(publisher, &heard, noTransaction);
        }
        if (result < 0) {
            return CodeOf(publisher, result);
        }
    }
    return 0;
}

void RtmpPublisherStop(RtmpPublisher *publisher)
{
    RtmpClient *client = publisher->Client;
    uint8_t notYet = 0;
    if (!__atomic_compare_exchange_n(&publisher->StopAsked, &notYet, uint8_t{1}, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
        return;
    }
    if (ClientStateOf(client) == CLIENT_STATE_PLAY_DONE) {
        SetClientState(client, CLIENT_STATE_DELETESTREAM);            // no frame goes out behind the good-bye
        (void)SendUnanswered(publisher, RTMP_PUBLISHER_FC_UNPUBLISH); // logged; the connection ends anyway
        (void)SendUnanswered(publisher, RTMP_PUBLISHER_DELETE_STREAM); // the same
    }
    StoreShared(&client->ToldToLeave, uint8_t{1});
    (void)shutdown(client->Socket, SHUT_RD); // wakes the thread; the peer sees nothing of it
}

void RtmpPublisherDestroy(RtmpPublisher *publisher)
{
    if (publisher == nullptr) {
        return;
    }
    if (DestroyRtmpClient(publisher->Client) != 0) {
        FreeClientRecord(publisher->Client);
    }
    FreeTarget(&publisher->Target);
    free(publisher);
}

const PublishCtx *RtmpPublisherAnswers(const RtmpPublisher *publisher)
{
    return &publisher->Answers;
}

RtmpClient *RtmpPublisherClient(RtmpPublisher *publisher)
{
    return publisher->Client;
}
