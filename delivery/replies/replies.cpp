#include "delivery/replies/replies.h"

#include "delivery/replies/acknowledge.h"
#include "delivery/replies/reply.h"
#include "delivery/replies/start_sequence.h"
#include "delivery/write/key_frame.h"
#include "message/send_list.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/types.h"
#include "state/client_list.h"

namespace {

constexpr const char *kProcess = "ProcessSend";

constexpr ReplyFailures kPauseFailures = {
    LOG_TEXT("ERROR: %s: Cannot generate PAUSE message\n"),
    LOG_TEXT("ERROR: %s: Cannot send PAUSE message to client\n"),
};

constexpr uint32_t kConnectReplies[] = {RTMP_MSG_WINDOW_ACK_SIZE, RTMP_MSG_SET_PEER_BANDWIDTH,
                                        RTMP_MSG_STREAM_BEGIN, RTMP_MSG_SET_CHUNK_SIZE, RTMP_MSG_CONNECT};

int Send(RtmpClient *client, RtmpRecvPkt *request, uint32_t kind)
{
    return SendReply(client, request, kind, kind, &kResponseFailures, kProcess);
}

// MoveTo changes the state under the session's client list lock: the fan-out reads it there. -1 (logged): the
// lock could not be taken, and the state is as it was; or it could not be given back, and the state is new.
int MoveTo(RtmpClient *client, uint32_t state)
{
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    if (LockClientsOf(client, &held) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot lock client list\n",
                     kProcess);
        return -1;
    }
    SetClientState(client, state);
    if (UnlockClients(&held) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock client list\n",
                     kProcess);
        return -1;
    }
    if (state == CLIENT_STATE_PLAY_DONE) {
        SendWhatIsHeld(client);
    }
    return 0;
}

// ForgetReferences makes the next message of every chunk stream start with a full header. The client is not
// in the playing state, so that no frame is being written against one of them.
void ForgetReferences(RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    (void)RemoveSendPkt(client, nullptr); // an empty list is logged and does no harm
}

bool IsPlayingOrPaused(uint32_t state)
{
    return state == CLIENT_STATE_PLAY_DONE || state == CLIENT_STATE_PAUSE_DONE;
}

// connect: RTMP 1.0, 7.2.1.1
int ReplyToConnect(RtmpClient *client, RtmpRecvPkt *request)
{
    if (ClientStateOf(client) != CLIENT_STATE_HANDSHAKE_DONE) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Client state is not handshake done\n", kProcess);
        return -1;
    }
    for (const uint32_t kind : kConnectReplies) {
        if (Send(client, request, kind) != 0) {
            return -1;
        }
    }
    if (SendReply(client, request, RTMP_MSG_ON_BW_DONE, RTMP_MSG_CONNECT, &kResponseFailures, kProcess) !=
        0) {
        return -1;
    }
    SetClientState(client, CLIENT_STATE_CONNECT_DONE);
    return 0;
}

// createStream: RTMP 1.0, 7.2.1.3
int ReplyToCreateStream(RtmpClient *client, RtmpRecvPkt *request)
{
    if (ClientStateOf(client) != CLIENT_STATE_CONNECT_DONE) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Client state is not connect done\n", kProcess);
        return -1;
    }
    if (Send(client, request, RTMP_MSG_CREATE_STREAM) != 0) {
        return -1;
    }
    SetClientState(client, CLIENT_STATE_CREATESTREAM_DONE);
    return 0;
}

// A repeated play stops the running one: no frame until the start sequence has been sent again.
int StopRunningPlay(RtmpClient *client, RtmpRecvPkt *request)
{
    if (MoveTo(client, CLIENT_STATE_REPLAY) != 0 || Send(client, request, RTMP_MSG_STREAM_BEGIN) != 0 ||
        Send(client, request, RTMP_MSG_PLAY_STOP) != 0) {
        return -1;
    }
    ForgetReferences(client);
    return 0;
}

void ChooseAudioChunkStream(RtmpClient *client)
{
    if (client->Session == nullptr) {
        return;
    }
    const uint32_t media = LoadShared(&client->Session->MediaKind);
    if (media == RTMP_MEDIA_BOTH) {
        client->AudioChunkStreamId = client->StatusChunkStreamId + 1;
    } else if (media == RTMP_MEDIA_AUDIO) {
        client->AudioChunkStreamId = client->StatusChunkStreamId;
    }
}

// play: RTMP 1.0, 7.2.2.1
int ReplyToPlay(RtmpClient *client, RtmpRecvPkt *request)
{
    const uint32_t state = ClientStateOf(client);
    if (state != CLIENT_STATE_CREATESTREAM_DONE && !IsPlayingOrPaused(state)) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Client state is not createstream/pause/play done\n", kProcess);
        return -1;
    }
    if (state == CLIENT_STATE_CREATESTREAM_DONE && Send(client, request, RTMP_MSG_PLAY_RESET) != 0) {
        return -1;
    }
    if (state == CLIENT_STATE_PLAY_DONE && StopRunningPlay(client, request) != 0) {
        return -1;
    }
    StartAnew(client, 0);
    if (Send(client, request, RTMP_MSG_STREAM_BEGIN) != 0) {
        return -1;
    }
    ChooseAudioChunkStream(client);
    if (StartSendingData(client, request) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot start sending data\n",
                     kProcess);
        return -1;
    }
    return MoveTo(client, CLIENT_STATE_PLAY_DONE);
}

// KEPT: the state is set without the session's lock, before the answer is sent. Required; it is paused also
// when the answer fails, and one frame more may leave in front of the answer.
int Pause(RtmpClient *client, RtmpRecvPkt *request)
{
    SetClientState(client, CLIENT_STATE_PAUSE_DONE);
    return SendReply(client, request, RTMP_MSG_PAUSE, RTMP_MSG_PAUSE, &kPauseFailures, kProcess);
}

int SendUnpauseSequence(RtmpClient *client, RtmpRecvPkt *request)
{
    ForgetReferences(client);
    StartAnew(client, 1);
    if (Send(client, request, RTMP_MSG_STREAM_BEGIN) != 0 ||
        SendReply(client, request, RTMP_MSG_PAUSE, RTMP_MSG_PAUSE, &kPauseFailures, kProcess) != 0) {
        return -1;
    }
    if (StartSendingData(client, request) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot start sending data\n",
                     kProcess);
        return -1;
    }
    return 0;
}

// A player that was not paused is taken out of the playing state for the length of the sequence, and put back
// when it cannot be taken out in due form, or the sequence fails.
int Unpause(RtmpClient *client, RtmpRecvPkt *request)
{
    const bool wasPlaying = ClientStateOf(client) == CLIENT_STATE_PLAY_DONE;
    if ((wasPlaying && MoveTo(client, CLIENT_STATE_REPLAY) != 0) ||
        SendUnpauseSequence(client, request) != 0) {
        if (wasPlaying) {
            (void)MoveTo(client, CLIENT_STATE_PLAY_DONE); // the failure in front is the one to report
        }
        return -1;
    }
    return MoveTo(client, CLIENT_STATE_PLAY_DONE);
}

// pause: RTMP 1.0, 7.2.2.8
int ReplyToPause(RtmpClient *client, RtmpRecvPkt *request)
{
    if (!IsPlayingOrPaused(ClientStateOf(client))) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Client state is not play done\n",
                     kProcess);
        return -1;
    }
    return client->PauseFlag == 1 ? Unpause(client, request) : Pause(client, request);
}

// seek: RTMP 1.0, 7.2.2.7. A live stream has no position to go to: the player is told that it is there, and
// frames go on as they come.
int ReplyToSeek(RtmpClient *client, RtmpRecvPkt *request)
{
    if (!IsPlayingOrPaused(ClientStateOf(client))) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Client state is not play done\n",
                     kProcess);
        return -1;
    }
    return Send(client, request, RTMP_MSG_SEEK);
}

// deleteStream: RTMP 1.0, 7.2.2.3
int ReplyToDeleteStream(RtmpClient *client)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const uint32_t state = ClientStateOf(client);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Checking state of connected client\n", kProcess);
    if (state != CLIENT_STATE_CREATESTREAM_DONE && !IsPlayingOrPaused(state)) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Client state is not play/pause/createstream done\n",
                     kProcess);
        return -1;
    }
    if (MoveTo(client, CLIENT_STATE_DELETESTREAM) != 0) {
        return -1;
    }
    // KEPT: the only line that names no procedure. Required.
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: Changing state to deletestream : %d\n",
                 static_cast<int>(CLIENT_STATE_DELETESTREAM));
    return 0;
}

} // namespace

int ProcessSend(RtmpClient *client, RtmpRecvPkt *request, uint32_t kind)
{
    switch (kind) {
    case RTMP_MSG_CONNECT:
        return ReplyToConnect(client, request);
    case RTMP_MSG_CREATE_STREAM:
        return ReplyToCreateStream(client, request);
    case RTMP_MSG_PLAY:
        return ReplyToPlay(client, request);
    case RTMP_MSG_PAUSE:
        return ReplyToPause(client, request);
    case RTMP_MSG_SEEK:
        return ReplyToSeek(client, request);
    case RTMP_MSG_DELETE_STREAM:
        return ReplyToDeleteStream(client);
    case RTMP_MSG_SET_BUFFER_LENGTH:
    case RTMP_MSG_SET_CHUNK_SIZE:
    case RTMP_MSG_ABORT:
    case RTMP_MSG_ACKNOWLEDGEMENT:
        return 0;
    case RTMP_MSG_WINDOW_ACK_SIZE:
        AcknowledgeReceived(client); // the peer may be waiting, with more than its window sent already
        return 0;
    default:
        return -1; // nothing to say, or not in this state of things; set peer bandwidth (47) among them
    }
}
