#include "serve/serve.h"

#include "delivery/replies/acknowledge.h"
#include "delivery/replies/replies.h"
#include "delivery/write/client_send.h"
#include "message/chunk_reader.h"
#include "message/generate.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/handshake.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/refusal.h"
#include "net/scope.h"
#include "serve/dispatch.h"
#include "state/client.h"
#include "state/server_hold.h"

namespace {

constexpr const char *kServe = "ServeRtmpClient";

// Refuse answers a message that cannot be served, and ends the connection: the next read fails.
void Refuse(RtmpClient *client, RtmpRecvPkt *pkt, int code, uint32_t kind)
{
    ServeClientForError(client, pkt, code, kind);
    CloseClientSocket(client);
}

// RTMP 1.0, 7.1.1 to 7.1.3: AMF3 forms of data, shared object and command.
bool IsAmf3Form(uint32_t msgTypeId)
{
    return msgTypeId >= 15 && msgTypeId <= 17;
}

// IsIgnored tells whether the connection goes on after a message that is not supported. Whoever sends media
// wants to publish, and would do so for ever.
bool IsIgnored(const RtmpClient *client, const RtmpRecvPkt *pkt)
{
    switch (pkt->Refusal.Reason) {
    case REFUSED_UNKNOWN_COMMAND:
    case REFUSED_COMMAND:
        return Allows(client, RULE_UNKNOWN_COMMAND);
    case REFUSED_DATA:
    case REFUSED_SHARED_OBJECT:
    case REFUSED_EVENT:
        return Allows(client, RULE_UNKNOWN_MESSAGE);
    case REFUSED_MESSAGE_TYPE:
        return IsAmf3Form(pkt->MsgTypeId) && Allows(client, RULE_UNKNOWN_MESSAGE);
    default:
        return false;
    }
}

void Dispatch(RtmpClient *client, RtmpRecvPkt *pkt)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    uint32_t kind = 0;
    const int result = ParseRequestMsg(client, pkt, &kind);
    if (result != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while parsing RTMP message\n", kServe);
        Refuse(client, pkt, result, kind);
        return;
    }
    if (kind == RTMP_MSG_UNSUPPORTED && IsIgnored(client, pkt)) {
        return; // its line has been logged
    }
    if (kind == RTMP_MSG_UNSUPPORTED) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported message type received\n", kServe);
        Refuse(client, pkt, RTMP_ERR_UNSUPPORTED_MSG, kind);
        return;
    }
    if (ProcessSend(client, pkt, kind) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while validating RTMP message\n",
                     kServe);
        // KEPT: the connection goes on, also after a reply that could not be sent. Required.
    }
}

enum Round ServeMessage(RtmpClient *client)
{
    bool stored = false;
    RtmpRecvPkt *pkt = ReadWholeMessage(client, &stored);
    if (pkt == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Error occured while reading RTMP message\n", kServe);
        return ROUND_ERROR;
    }
    Dispatch(client, pkt);
    LetGoOfMessage(client, pkt, stored);
    return ROUND_AGAIN;
}

// DetachUnlessAwaited detaches the calling thread, unless RtmpSessionDestroy has said that it will join it.
void DetachUnlessAwaited(RtmpClient *client)
{
    RtmpSession *session = client->Session;
    if (session == nullptr) {
        RtmpThreadDetach(RtmpGetSelfThreadHandle());
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (client->ThreadOwner == THREAD_OWNER_NOBODY) {
        StoreShared(&client->ThreadOwner, static_cast<uint8_t>(THREAD_OWNER_ITSELF));
        RtmpThreadDetach(RtmpGetSelfThreadHandle());
    }
}

void DestroyClient(RtmpClient *client)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (DestroyRtmpClient(client) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Destroying rtmp client failed\n", kServe);
        FreeClientRecord(client);
    }
}

// LeaveLoop destroys the client as its last round asks. The server is held by the caller.
void LeaveLoop(RtmpServer *server, RtmpClient *client, enum Round round)
{
    RtmpLogger *logger = LoggerOf(server);
    if (round != ROUND_ERROR || client->Socket != -1) {
        DetachUnlessAwaited(client);
    }
    if (round == ROUND_ERROR) {
        // KEPT: the socket stays open, and its number is lost. Required: the peer sees no end of its
        // connection.
        DestroyClient(client);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Exiting ServeRtmpClient thread\n", kServe);
        return;
    }
    if (round == ROUND_DELETED) {
        // KEPT: here too the socket stays open. Required.
        DestroyClient(client);
    } else if (client->Session != nullptr) {
        FreeClientRecord(
            client); // a closed client that nobody takes out of its session would hold it for good
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Exiting Server RtmpClient thread\n", kServe);
}

// ServeHeld is the thread's body once the server is held. It gives that hold back.
[[noreturn]] void ServeHeld(RtmpClient *client)
{
    RtmpServer *server = client->Server;
    StoreShared(&client->ServeThread, RtmpGetSelfThreadHandle());
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Serve RTMP client thread created\n", kServe);
    enum Round round;
    do {
        round = ServeRound(client);
    } while (round == ROUND_AGAIN);

    LeaveLoop(server, client, round);
    (void)ReleaseServer(server); // a failure is logged
    RtmpThreadExit(RtmpGetSelfThreadHandle());
}

// SendErrorReply returns whether the reply left.
bool SendErrorReply(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t reply, uint32_t requestKind)
{
    constexpr const char *who = "ServeClientForError";
    RtmpLogger *logger = LoggerOf(client->Server);
    RtmpSendPkt *message = GenerateRtmpMsg(client, pkt, reply);
    if (message == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate RTMP response message\n", who);
        return false;
    }
    if (SendMsgToClient(client, message, requestKind) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while sending error response\n", who);
        return false;
    }
    return true;
}

// The answer is longer than a chunk of the protocol's first size (RTMP 1.0, 5.4.1): a peer that has not been
// told how the server cuts is told first. What fails is logged; the connection ends anyway.
void AnswerRejectedConnect(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    if (SendErrorReply(client, pkt, RTMP_MSG_SET_CHUNK_SIZE, kind)) {
        (void)SendErrorReply(client, pkt, RTMP_MSG_CONNECT_REJECTED, kind);
    }
}

// AnswerRefusal tells a peer why its request failed, where it is told at all.
void AnswerRefusal(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    const uint32_t reason = pkt->Refusal.Reason;
    if (reason == REFUSED_PUBLISH) {
        (void)SendErrorReply(client, pkt, RTMP_MSG_PUBLISH, kind); // logged; the connection ends anyway
    } else if (reason == REFUSED_BY_HOST ||
               (reason == REFUSED_CONNECT_PROPERTY && Allows(client, RULE_CONNECT_REJECTED))) {
        AnswerRejectedConnect(client, pkt, kind);
    }
}

} // namespace

RtmpRecvPkt *ReadWholeMessage(RtmpClient *client, bool *stored)
{
    RtmpRecvPkt *pkt;
    do {
        pkt = ReadRtmpMessage(client);
        if (pkt == nullptr) {
            return nullptr;
        }
        *stored = IsKnownRecvPktStored(client, pkt) == 0 || AddRecvPkt(client, pkt) == 0;
        AcknowledgeReceived(client);
    } while (*stored && pkt->Complete != 1);
    return pkt;
}

void LetGoOfMessage(RtmpClient *client, RtmpRecvPkt *pkt, bool stored)
{
    if (stored) {
        // The list keeps it for the headers that inherit from it. Its values, which may take eighty times its
        // own memory, are not asked for again.
        (void)FreeDecodedCommand(client->Server, pkt);
    } else {
        (void)FreeRecvPkt(client->Server, pkt); // no list owns it; a failure is logged
    }
}

enum Round ServeRound(RtmpClient *client)
{
    const uint32_t state = ClientStateOf(client);
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: Serving RTMP Client: %p : %d\n", kServe,
                 static_cast<void *>(client), static_cast<int>(state));
    switch (state) {
    case CLIENT_STATE_CLOSED:
    case CLIENT_STATE_EXIT:
        return ROUND_CLOSED;
    case CLIENT_STATE_DELETESTREAM:
        return ROUND_DELETED;
    case CLIENT_STATE_INIT:
        if (PerformHandshake(client) != 0) {
            RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Handshaking failed\n", kServe);
            return ROUND_ERROR;
        }
        SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
        return ROUND_AGAIN;
    default:
        return ServeMessage(client);
    }
}

void *ServeRtmpClient(void *argument)
{
    if (argument == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid thread input arguments\n", __func__);
        RtmpThreadDetach(RtmpGetSelfThreadHandle());
        RtmpThreadExit(RtmpGetSelfThreadHandle());
    }
    RtmpClient *client = static_cast<RtmpClient *>(argument);
    HoldServer(client->Server);
    ServeHeld(client);
}

void *ServeAcceptedClient(void *argument)
{
    ServeHeld(static_cast<RtmpClient *>(argument));
}

void ServeClientForError(RtmpClient *client, RtmpRecvPkt *pkt, int code, uint32_t kind)
{
    if (code == RTMP_ERR_STREAM_NOT_FOUND) {
        if (SendErrorReply(client, pkt, RTMP_MSG_STREAM_NOT_FOUND, kind)) {
            (void)SendErrorReply(client, pkt, RTMP_MSG_PLAY_STOP, kind); // logged; the connection ends anyway
        }
    } else if (code == RTMP_ERR_UNSUPPORTED_MSG) {
        (void)SendErrorReply(client, pkt, RTMP_MSG_CONNECT_FAILED, kind);
    } else {
        AnswerRefusal(client, pkt, kind);
    }
}
