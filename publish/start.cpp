#include "publish/start.h"

#include "delivery/replies/reply.h"
#include "delivery/write/key_frame.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/connect_handshake.h"
#include "net/log.h"
#include "net/platform.h"
#include "publish/command_writer.h"
#include "publish/listen.h"
#include "state/session_list.h"
#include "steady/records.h"

#include <sys/socket.h>

namespace {

constexpr const char *kStart = "RtmpPublisherStart";

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
    return SendReply(publisher->Client, nullptr, kind, kind, &kServiceFailures, who) == 0
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
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot join the session\n",
                     kStart);
        if (IsToldToLeave(client)) { // RtmpPublisherStop, while the list was waited for
            return RTMP_ERR_CONNECTION;
        }
        return joined == JOIN_NOT_FOUND ? RTMP_ERR_INVALID_ARGUMENT : RTMP_FAILED;
    }
    if (client->Line != nullptr) {
        StoreShared(&client->Line->IsPublisher, uint8_t{1});
    }
    StartAnew(client, 0);
    const int32_t result = SendHeaders(publisher, session);
    if (result == 0) {
        SetClientState(client, CLIENT_STATE_PLAY_DONE); // last: from here on every frame goes out
        SendWhatIsHeld(client);
    }
    return result;
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

} // namespace

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

int32_t StartPublishing(RtmpPublisher *publisher, RtmpSession *session)
{
    const int ready = IsReadySession(publisher->Client->Server, session);
    if (ready != 1) {
        return ready == 0 ? RTMP_ERR_NO_MEDIA_INFO : RTMP_ERR_INVALID_ARGUMENT;
    }
    const int32_t result = Negotiate(publisher);
    return result == 0 ? StartFrames(publisher, session) : result;
}
