#include "message/command_replies.h"

#include "amf/object.h"
#include "message/command_payload.h"
#include "message/header_fields.h"
#include "message/send_list.h"
#include "message/send_packet.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/player_rules.h"
#include "net/refusal.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr double kNoTransactionId = -1; // refused by WriteCmdMsgPayload

struct StatusText {
    uint32_t MsgKind;
    const char *Level;
    const char *Code;
    const char *Description;
};

constexpr StatusText kStatusTexts[] = {
    {RTMP_MSG_PAUSE, "status", "NetStream.Pause.Notify", "Pausing"},
    {RTMP_MSG_PLAY_RESET, "status", "NetStream.Play.Reset", "Playing and resetting"},
    {RTMP_MSG_PLAY_START, "status", "NetStream.Play.Start", "Started playing"},
    {RTMP_MSG_PLAY_STOP, "status", "NetStream.Play.Stop", "Stopped playing"},
    {RTMP_MSG_STREAM_NOT_FOUND, "error", "NetStream.Play.StreamNotFound", "Stream not found"},
    {RTMP_MSG_CONNECT_FAILED, "error", "NetConnection.Connect.Failed", "Connection failed"},
    {RTMP_MSG_SEEK, "status", "NetStream.Seek.Notify", "Seeking"},
    {RTMP_MSG_PUBLISH, "error", "NetStream.Publish.Denied", "Publishing is not served"},
};
static_assert(sizeof kStatusTexts / sizeof kStatusTexts[0] == 8, "every status has its text");

constexpr StatusText kUnpausing = {RTMP_MSG_PAUSE, "status", "NetStream.Unpause.Notify", "Unpausing"};

const StatusText *StatusTextOf(const RtmpClient *client, uint32_t msgKind)
{
    if (msgKind == RTMP_MSG_PAUSE && client->PauseFlag == 1) {
        return &kUnpausing;
    }
    for (const StatusText &text : kStatusTexts) {
        if (text.MsgKind == msgKind) {
            return &text;
        }
    }
    return nullptr;
}

// The number that the command carries behind its name. Only a decoded command has values to look at.
double TransactionIdOf(RtmpServer *server, const RtmpRecvPkt *request)
{
    if (request == nullptr || request->MsgTypeId != RTMP_TYPE_AMF0_COMMAND ||
        request->Result.Amf == nullptr || request->Result.Amf->count < 2) {
        return kNoTransactionId;
    }
    AmfObjProperty *property = GetAmfProp(server, request->Result.Amf, nullptr, 1);
    if (property == nullptr || GetAmfPropType(server, property) != AMF_NUMBER) {
        return kNoTransactionId;
    }
    return GetAmfPropNumber(server, property);
}

int WriteConnectResult(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    CmdMsgPayload payload = {};
    payload.Command = "_result";
    payload.TransactionId = TransactionIdOf(client->Server, request);
    payload.FmsVer = "FMS/3,5,1,516";
    payload.Capabilities = 31;
    payload.Mode = 1;
    payload.Level = "status";
    payload.Code = "NetConnection.Connect.Success";
    payload.Description = "Connection succeeded";
    return WriteCmdMsgPayload(client, pkt, &payload);
}

// RTMP 1.0, 7.2.1.1: the answer to a "connect" that is refused. It names the property, if there is one.
int WriteConnectError(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    const RtmpRefusal refusal = request != nullptr ? request->Refusal : RtmpRefusal{};
    char description[64] = "The viewer is not admitted"; // keys of "connect" are far shorter
    if (refusal.Reason != REFUSED_BY_HOST) {
        snprintf(description, sizeof description, "The value of %.*s is not accepted", refusal.What.len,
                 refusal.What.data != nullptr ? refusal.What.data : "");
    }
    CmdMsgPayload payload = {};
    payload.Command = "_error";
    payload.TransactionId = TransactionIdOf(client->Server, request);
    payload.Level = "error";
    payload.Code = "NetConnection.Connect.Rejected";
    payload.Description = description;
    return WriteCmdMsgPayload(client, pkt, &payload);
}

int WriteCreateStreamResult(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    CmdMsgPayload payload = {};
    payload.Command = "_result";
    payload.TransactionId = TransactionIdOf(client->Server, request);
    payload.StreamId = client->StreamId;
    return WriteCmdMsgPayload(client, pkt, &payload);
}

int WriteBwDone(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    CmdMsgPayload payload = {};
    payload.Command = "onBWDone";
    payload.TransactionId = request != nullptr ? 0 : kNoTransactionId; // without a chunk stream to go out on
    return WriteCmdMsgPayload(client, pkt, &payload);
}

int WriteStatus(RtmpClient *client, RtmpSendPkt *pkt)
{
    const StatusText *text = StatusTextOf(client, pkt->MsgKind);
    if (text == nullptr) {
        return -1;
    }
    CmdMsgPayload payload = {};
    payload.Command = "onStatus";
    payload.Level = text->Level;
    payload.Code = text->Code;
    payload.Description = text->Description;
    return WriteCmdMsgPayload(client, pkt, &payload);
}

int WriteReply(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    switch (pkt->MsgKind) {
    case RTMP_MSG_CONNECT:
        return WriteConnectResult(client, pkt, request);
    case RTMP_MSG_CONNECT_REJECTED:
        return WriteConnectError(client, pkt, request);
    case RTMP_MSG_CREATE_STREAM:
        return WriteCreateStreamResult(client, pkt, request);
    case RTMP_MSG_ON_BW_DONE:
        return WriteBwDone(client, pkt, request);
    case RTMP_MSG_PLAY:         // 12, 13 and 36 answer a play
    case RTMP_MSG_USTREAM_PONG: // the service wants no more than a message
        return 0;
    default:
        return WriteStatus(client, pkt);
    }
}

// SetStreamOfRequest addresses a reply to the message stream that its request came on. Where it is not known,
// because a short chunk header named none, it is the one stream that a client has.
void SetStreamOfRequest(const RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    const bool isKnown =
        request != nullptr && (request->HeaderType == 0 || Allows(client, RULE_MESSAGE_STREAM_IN));
    if (isKnown) {
        memcpy(pkt->MsgStreamId, request->MsgStreamId, sizeof pkt->MsgStreamId);
    } else {
        SetMsgStreamId(pkt, client->StreamId);
    }
}

// What is on no chunk stream of its own: the notice of a failed connection, the answer to a service's ping.
bool HasNoChunkStream(uint32_t msgKind)
{
    return msgKind == RTMP_MSG_CONNECT_FAILED || msgKind == RTMP_MSG_USTREAM_PONG;
}

// AddressReply chooses chunk stream and message stream, and moves the client's counters on.
// KEPT: they stay moved when the message fails later. Required; changes ids on the wire.
void AddressReply(RtmpClient *client, RtmpSendPkt *pkt, const RtmpRecvPkt *request)
{
    if (HasNoChunkStream(pkt->MsgKind) && Allows(client, RULE_CHUNK_STREAM_3)) {
        pkt->ChunkStreamId = kCommandChunkStreamId;
        SetMsgStreamId(pkt, client->ConnStreamId);
        return;
    }
    switch (pkt->MsgKind) {
    case RTMP_MSG_CREATE_STREAM:
        client->StreamId++;
        [[fallthrough]];
    case RTMP_MSG_CONNECT:
    case RTMP_MSG_CONNECT_REJECTED:
    case RTMP_MSG_ON_BW_DONE:
        pkt->ChunkStreamId = request != nullptr ? request->ChunkStreamId : 0;
        SetMsgStreamId(pkt, client->ConnStreamId);
        break;
    case RTMP_MSG_CONNECT_FAILED:
        // KEPT: a stream id where a chunk stream id belongs. It is 0, so no basic header is written.
        // Required; changes bytes on the wire.
        pkt->ChunkStreamId = client->ConnStreamId;
        SetMsgStreamId(pkt, client->ConnStreamId);
        break;
    case RTMP_MSG_USTREAM_PONG:
        // KEPT: chunk stream 0 and stream 0. Required; changes bytes on the wire.
        break;
    case RTMP_MSG_SEEK:
    case RTMP_MSG_PUBLISH:
        pkt->ChunkStreamId = client->StatusChunkStreamId - 1; // as for a pause: frames may go out meanwhile
        SetStreamOfRequest(client, pkt, request);
        break;
    default:
        pkt->ChunkStreamId = client->StatusChunkStreamId - (pkt->MsgKind == RTMP_MSG_PAUSE ? 1 : 0);
        SetMsgStreamId(pkt, client->StreamId);
        if (pkt->MsgKind == RTMP_MSG_PLAY_RESET) {
            client->StatusChunkStreamId++; // no frames go out yet: they read it on another thread
        }
        break;
    }
}

} // namespace

RtmpSendPkt *GenerateCmdMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind)
{
    const RtmpRecvPkt *request = static_cast<const RtmpRecvPkt *>(recvPkt);
    RtmpSendPkt *pkt = NewSendPkt(client, msgKind, RTMP_TYPE_AMF0_COMMAND, __func__);
    if (pkt == nullptr) {
        return nullptr;
    }
    AddressReply(client, pkt, request);
    if (WriteReply(client, pkt, request) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot write amf data in send amf object\n", __func__);
        FreeSendPkt(pkt);
        return nullptr;
    }
    return FinishSendPkt(client, pkt);
}
