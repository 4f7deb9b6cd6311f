#include "command/user_control.h"

#include "command/locked_reply.h"
#include "net/atomic.h"
#include "net/byte_order.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/refusal.h"

#include <string.h>

namespace {

enum UserControlEvent { EVENT_SET_BUFFER_LENGTH = 3, EVENT_UNASSIGNED = 5, EVENT_PING_REQUEST = 6 };

struct EventRow {
    uint32_t Kind;
    LogText Line;
};

// By event type (RTMP 1.0, 7.1.7).
constexpr EventRow kEvents[] = {
    {RTMP_MSG_STREAM_BEGIN, LOG_TEXT("INFO: %s: Received User control message: STREAM BEGIN\n")},
    {RTMP_MSG_UNSUPPORTED, LOG_TEXT("INFO: %s: Received User control message: STREAM EOF\n")},
    {RTMP_MSG_UNSUPPORTED, LOG_TEXT("INFO: %s: Received User control message: STREAM DRY\n")},
    {RTMP_MSG_SET_BUFFER_LENGTH, LOG_TEXT("INFO: %s: Received User control message: SET BUFFER LEN\n")},
    {RTMP_MSG_UNSUPPORTED, LOG_TEXT("INFO: %s: Received User control message: STREAM IS RECORDED\n")},
    {0, {nullptr}}, // EVENT_UNASSIGNED
    {RTMP_MSG_PING_REQUEST, {nullptr}},
    {RTMP_MSG_PING_RESPONSE, LOG_TEXT("INFO: %s: Received User control message: PING RESPONSE\n")},
};
constexpr uint32_t kEventCount = sizeof kEvents / sizeof kEvents[0];
static_assert(kEventCount == 8);

// event type:16  event value:32  buffer length:32 (set buffer length only, not kept)
struct EventFields {
    uint8_t Bytes[6];
};

// Bytes that the peer did not send read as zero.
EventFields ReadEventFields(const RtmpRecvPkt *pkt)
{
    EventFields fields = {};
    const uint32_t wanted = sizeof fields.Bytes;
    memcpy(fields.Bytes, pkt->PayloadData, pkt->MsgLength < wanted ? pkt->MsgLength : wanted);
    return fields;
}

// A set buffer length that lacks its buffer length is recorded without a stream id.
bool CarriesValue(uint32_t eventType, uint32_t length)
{
    return eventType != EVENT_SET_BUFFER_LENGTH || length > 8;
}

// 0; -1 (logged). Without a session there is no answer.
int AnswerPing(RtmpClient *client, RtmpRecvPkt *pkt, const char *caller)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (LoadShared(&client->Session) == nullptr) {
        return 0;
    }
    switch (ReplyUnderClientListLock(client, pkt, RTMP_MSG_PING_RESPONSE)) {
    case LOCKED_REPLY_SENT:
        return 0;
    case LOCKED_REPLY_NO_LOCK:
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock client list\n", caller);
        break;
    case LOCKED_REPLY_NOT_GENERATED:
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate RTMP PING RESPONSE message\n",
                     caller);
        break;
    case LOCKED_REPLY_NOT_SENT:
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot send RTMP PING RESPONSE message to server\n",
                     caller);
        break;
    case LOCKED_REPLY_NO_UNLOCK:
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock client list\n", caller);
        break;
    }
    return RTMP_FAILED;
}

} // namespace

int ParseUsrCtrlMsgReq(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *msgKind)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (static_cast<int32_t>(pkt->MsgLength) <= 0 || pkt->PayloadData == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: No data present in payload\n", __func__);
        return RTMP_FAILED;
    }
    const EventFields fields = ReadEventFields(pkt);
    const uint32_t eventType = GetU16Be(fields.Bytes);
    if (eventType >= kEventCount || eventType == EVENT_UNASSIGNED) {
        return 0;
    }
    pkt->Result.Event.EventType = static_cast<uint16_t>(eventType);
    if (CarriesValue(eventType, pkt->MsgLength)) {
        pkt->Result.Event.EventValue = GetU32Be(fields.Bytes + 2);
    }
    *msgKind = kEvents[eventType].Kind;
    if (*msgKind == RTMP_MSG_UNSUPPORTED) {
        NoteRefusal(pkt, REFUSED_EVENT, nullptr);
    }
    if (kEvents[eventType].Line.Format != nullptr) {
        LogLine(logger, RTMP_LOG_INFO, kEvents[eventType].Line, __func__);
    }
    return eventType == EVENT_PING_REQUEST ? AnswerPing(client, pkt, __func__) : 0;
}
