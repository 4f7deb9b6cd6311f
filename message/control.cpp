#include "message/control.h"

#include "message/header_fields.h"
#include "message/send_list.h"
#include "message/send_packet.h"
#include "net/atomic.h"
#include "net/byte_writer.h"
#include "net/limits.h"
#include "net/player_rules.h"

namespace {

constexpr uint32_t kLimitDynamic = 2; // RTMP 1.0, 5.4.5
enum { EVENT_STREAM_BEGIN = 0, EVENT_PING_RESPONSE = 7 };

struct Payload {
    uint8_t Bytes[6];
    uint32_t Length;
};

uint32_t TypeOfProtocolControl(uint32_t msgKind)
{
    switch (msgKind) {
    case RTMP_MSG_SET_CHUNK_SIZE:
        return RTMP_TYPE_SET_CHUNK_SIZE;
    case RTMP_MSG_ABORT:
        return RTMP_TYPE_ABORT;
    case RTMP_MSG_ACKNOWLEDGEMENT:
        return RTMP_TYPE_ACKNOWLEDGEMENT;
    case RTMP_MSG_WINDOW_ACK_SIZE:
        return RTMP_TYPE_WINDOW_ACK_SIZE;
    default:
        return RTMP_TYPE_SET_PEER_BANDWIDTH;
    }
}

// set chunk size, window acknowledgement size:  value:32
// set peer bandwidth:                           value:32  limit type:8
// acknowledgement:                              value:32, of a connection that has the rule
Payload ProtocolControlPayload(const RtmpClient *client, uint32_t msgKind)
{
    const RtmpServer *server = client->Server;
    Payload payload = {};
    ByteWriter out = WriterOver(payload.Bytes, sizeof payload.Bytes);
    if (msgKind == RTMP_MSG_SET_CHUNK_SIZE) {
        PutU32Be(&out, AnnouncedChunkSize(server));
    } else if (msgKind == RTMP_MSG_WINDOW_ACK_SIZE) {
        PutU32Be(&out, LoadShared(&server->PeerBandwidth));
    } else if (msgKind == RTMP_MSG_SET_PEER_BANDWIDTH) {
        PutU32Be(&out, LoadShared(&server->PeerBandwidth));
        PutU8(&out, kLimitDynamic);
    } else if (msgKind == RTMP_MSG_ACKNOWLEDGEMENT && Allows(client, RULE_ACKNOWLEDGE)) {
        PutU32Be(&out, client->BytesReceived);
    }
    payload.Length = static_cast<uint32_t>(out.Next - payload.Bytes);
    return payload;
}

// The time that a ping request carries, or 0.
uint32_t PingTime(const RtmpRecvPkt *request)
{
    const bool isEvent = request != nullptr && request->MsgTypeId == RTMP_TYPE_USER_CONTROL;
    return isEvent ? request->Result.Event.EventValue : 0;
}

// event type:16  event value:32
Payload EventPayload(uint32_t eventType, uint32_t eventValue)
{
    Payload payload = {};
    ByteWriter out = WriterOver(payload.Bytes, sizeof payload.Bytes);
    PutU16Be(&out, eventType);
    PutU32Be(&out, eventValue);
    payload.Length = static_cast<uint32_t>(out.Next - payload.Bytes);
    return payload;
}

Payload UserControlPayload(const RtmpClient *client, const RtmpRecvPkt *request, uint32_t msgKind)
{
    if (msgKind == RTMP_MSG_STREAM_BEGIN) {
        return EventPayload(EVENT_STREAM_BEGIN, client->StreamId);
    }
    if (msgKind == RTMP_MSG_PING_RESPONSE) {
        return EventPayload(EVENT_PING_RESPONSE, PingTime(request));
    }
    return {};
}

// A control message on the connection's own stream.
RtmpSendPkt *MakeControlMsg(RtmpClient *client, uint32_t msgKind, uint32_t msgTypeId, const Payload *payload,
                            const char *who)
{
    RtmpSendPkt *pkt = NewSendPkt(client, msgKind, msgTypeId, who);
    if (pkt == nullptr) {
        return nullptr;
    }
    pkt->ChunkStreamId = kControlChunkStreamId;
    SetMsgStreamId(pkt, client->ConnStreamId);
    if (payload->Length > 0 && CopyPayload(client, pkt, payload->Bytes, payload->Length, who) != 0) {
        FreeSendPkt(pkt);
        return nullptr;
    }
    return FinishSendPkt(client, pkt);
}

} // namespace

uint32_t AnnouncedChunkSize(const RtmpServer *server)
{
    const int32_t configured = server->ConfiguredChunkSize;
    return configured < 1 ? kDefaultChunkSize : static_cast<uint32_t>(configured);
}

RtmpSendPkt *GenerateProtoCtrlMsgRes(RtmpClient *client, void * /*recvPkt*/, uint32_t msgKind)
{
    RtmpServer *server = client->Server;
    const Payload payload = ProtocolControlPayload(client, msgKind);
    RtmpSendPkt *pkt = MakeControlMsg(client, msgKind, TypeOfProtocolControl(msgKind), &payload, __func__);
    if (pkt != nullptr && msgKind == RTMP_MSG_SET_CHUNK_SIZE) {
        StoreShared(&server->ChunkSize, AnnouncedChunkSize(server));
    }
    return pkt;
}

RtmpSendPkt *GenerateUsrCtrlMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind)
{
    const Payload payload = UserControlPayload(client, static_cast<RtmpRecvPkt *>(recvPkt), msgKind);
    RtmpSendPkt *pkt = MakeControlMsg(client, msgKind, RTMP_TYPE_USER_CONTROL, &payload, __func__);
    if (pkt != nullptr && msgKind == RTMP_MSG_PING_RESPONSE) {
        // The header says 0; Timestamp, from which the next delta is taken, goes on.
        memset(pkt->HdrTimestamp, 0, sizeof pkt->HdrTimestamp);
        memset(pkt->ExtTimestamp, 0, sizeof pkt->ExtTimestamp);
    }
    return pkt;
}
