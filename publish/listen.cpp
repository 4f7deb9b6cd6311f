#include "publish/listen.h"

#include "amf/object.h"
#include "delivery/replies/reply.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "serve/dispatch.h"
#include "serve/serve.h"

#include <string.h>
#include <sys/socket.h>

namespace {

constexpr const char *kServe = "RtmpPublisherServe";
constexpr uint32_t kNameHeader = 3; // marker:8 length:16

// What players ask for is nothing that a service may: "play" would join it to a session of its own choice.
constexpr const char *kPlayersCommands[] = {"connect",      "createStream", "play",   "pause",
                                            "deleteStream", "seek",         "publish"};

bool IsNamed(const RtmpRecvPkt *pkt, const char *name)
{
    const uint64_t length = strlen(name);
    return pkt->MsgLength >= kNameHeader + length && pkt->PayloadData[1] == 0 &&
           pkt->PayloadData[2] == length && memcmp(pkt->PayloadData + kNameHeader, name, length) == 0;
}

bool IsPlayersCommand(const RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND) {
        return false;
    }
    for (const char *name : kPlayersCommands) {
        if (IsNamed(pkt, name)) {
            return true;
        }
    }
    return false;
}

// The number behind name, transaction id and null.
double StreamIdIn(RtmpServer *server, const RtmpRecvPkt *pkt)
{
    constexpr int32_t place = 3;
    AmfObject *values = pkt->Result.Amf;
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND || values == nullptr || values->count <= place) {
        return 0;
    }
    AmfObjProperty *value = GetAmfProp(server, values, nullptr, place);
    return GetAmfPropType(server, value) == AMF_NUMBER ? GetAmfPropNumber(server, value) : 0;
}

// A ping is answered before the session is joined, too.
void AnswerEarlyPing(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    if (kind == RTMP_MSG_PING_REQUEST && LoadShared(&client->Session) == nullptr) {
        (void)SendReply(client, pkt, RTMP_MSG_PING_RESPONSE, RTMP_MSG_PING_RESPONSE, &kResponseFailures,
                        kServe); // logged; the connection goes on
    }
}

// 0; -1: what came was not to be understood.
int Handle(RtmpPublisher *publisher, RtmpRecvPkt *pkt, Heard *heard)
{
    RtmpClient *client = publisher->Client;
    *heard = {RTMP_MSG_UNSUPPORTED, 0}; // events that are passed over leave the kind alone
    if (IsPlayersCommand(pkt)) {
        return 0;
    }
    if (ParseRequestMsg(client, pkt, &heard->Kind) != 0) {
        return -1;
    }
    AnswerEarlyPing(client, pkt, heard->Kind);
    if (heard->Kind == RTMP_MSG_RESULT) {
        heard->StreamId = StreamIdIn(client->Server, pkt);
    }
    return 0;
}

} // namespace

void LimitReads(const RtmpPublisher *publisher, uint32_t milliseconds)
{
    const struct timeval limit = {static_cast<time_t>(milliseconds / 1000),
                                  static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    (void)setsockopt(publisher->Client->Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

int32_t HearMessage(RtmpPublisher *publisher, uint32_t milliseconds, Heard *heard)
{
    RtmpClient *client = publisher->Client;
    const uint64_t start = RtmpGetSystemTime();
    bool stored = false;
    LimitReads(publisher, milliseconds);
    RtmpRecvPkt *pkt = ReadWholeMessage(client, &stored);
    if (pkt == nullptr) {
        const bool isLate = milliseconds != 0 && RtmpGetSystemTime() - start >= milliseconds;
        return isLate ? RTMP_ERR_NO_ANSWER : RTMP_ERR_CONNECTION;
    }
    const int result = Handle(publisher, pkt, heard);
    LetGoOfMessage(client, pkt, stored);
    return result == 0 ? 0 : RTMP_ERR_CONNECTION;
}
