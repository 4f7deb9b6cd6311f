#include "serve/dispatch.h"

#include "command/command.h"
#include "command/user_control.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/byte_order.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/refusal.h"
#include "net/scope.h"
#include "rtmpcast/types.h"
#include "state/client_list.h"

namespace {

// The first four payload bytes; those that are not there read as zero.
uint32_t ControlValue(const RtmpRecvPkt *pkt)
{
    uint8_t bytes[4] = {};
    for (uint32_t i = 0; i < sizeof bytes && i < pkt->MsgLength; i++) {
        bytes[i] = pkt->PayloadData[i];
    }
    return GetU32Be(bytes);
}

// StoreForClient sets a client's field under its session's client list lock, when it has joined one.
int StoreForClient(RtmpClient *client, uint32_t *field, uint32_t value, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    if (LockClientsOf(client, &held) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp client list\n", who);
        return -1;
    }
    *field = value;
    if (UnlockClients(&held) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp client list\n", who);
        return -1;
    }
    return 0;
}

// TakenChunkSize returns what becomes of an announced size. RTMP 1.0, 5.4.1: 31 bits, at least 1; a size of 0
// changes nothing.
uint32_t TakenChunkSize(const RtmpClient *client, uint32_t announced)
{
    if (!Allows(client, RULE_CHUNK_SIZE_IN)) {
        // KEPT: taken whole, also the reserved top bit, and also 0. Required; changes a log line and how the
        // peer's chunks are cut.
        return announced;
    }
    const uint32_t size = announced & 0x7FFFFFFF;
    return size > 0 ? size : client->InChunkSize;
}

int SetChunkSize(RtmpClient *client, uint32_t announced, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Received Protocol control message: SET CHUNK SIZE\n", who);
    const uint32_t size = TakenChunkSize(client, announced);
    if (StoreForClient(client, &client->InChunkSize, size, who) != 0) {
        return -1;
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Client to Server Chunk Size : %d\n", who,
                 static_cast<int>(size));
    return 0;
}

int Abort(RtmpClient *client, uint32_t chunkStreamId, const char *who)
{
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO,
                 "INFO: %s: Received Protocol control message: ABORT\n", who);
    // KEPT: without the rule the partly received message is not dropped. Required
    return Allows(client, RULE_ABORT) ? AbandonMessage(client, chunkStreamId) : 0;
}

int ParseProtocolControl(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const uint32_t value = ControlValue(pkt);
    switch (pkt->MsgTypeId) {
    case RTMP_TYPE_SET_CHUNK_SIZE:
        if (SetChunkSize(client, value, who) != 0) {
            return -1;
        }
        *kind = RTMP_MSG_SET_CHUNK_SIZE;
        return 0;
    case RTMP_TYPE_ABORT:
        if (Abort(client, value, who) != 0) {
            return -1;
        }
        *kind = RTMP_MSG_ABORT;
        return 0;
    case RTMP_TYPE_ACKNOWLEDGEMENT:
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Received Protocol control message: ACKNOWLEDGEMENT\n",
                     who);
        *kind = RTMP_MSG_ACKNOWLEDGEMENT;
        return 0;
    case RTMP_TYPE_WINDOW_ACK_SIZE:
        RtmpLogPrint(logger, RTMP_LOG_INFO,
                     "INFO: %s: Received Protocol control message: WIN ACKNOWLEDGEMENT SIZE\n", who);
        if (StoreForClient(client, &client->WindowAckSize, value, who) != 0) {
            return -1;
        }
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Client window acknowledge size : %d\n", who,
                     static_cast<int>(value));
        *kind = RTMP_MSG_WINDOW_ACK_SIZE;
        return 0;
    default: // RTMP_TYPE_SET_PEER_BANDWIDTH
        RtmpLogPrint(logger, RTMP_LOG_INFO,
                     "INFO: %s: Received Protocol control message: SET PEER BANDWIDTH\n", who);
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Client peer bandwidth : %d\n", who,
                     static_cast<int>(value));
        *kind = RTMP_MSG_SET_PEER_BANDWIDTH;
        return 0;
    }
}

struct RefusedType {
    uint32_t MsgTypeId;
    enum RtmpRefusalReason Reason;
    LogText Line;
};

// KEPT: audio, video and data messages, and types that are not served, end the connection. Required. Types
// that are not listed here are refused without a line.
constexpr RefusedType kRefusedTypes[] = {
    {RTMP_TYPE_AUDIO, REFUSED_MEDIA, LOG_TEXT("INFO: %s: Received Data message: Audio\n")},
    {RTMP_TYPE_VIDEO, REFUSED_MEDIA, LOG_TEXT("INFO: %s: Received Data message: Video\n")},
    {RTMP_TYPE_AMF0_DATA, REFUSED_DATA, LOG_TEXT("INFO: %s: Received Data message\n")},
    {RTMP_TYPE_AMF0_SHARED_OBJECT, REFUSED_SHARED_OBJECT,
     LOG_TEXT("INFO: %s: Received Shared object message\n")},
    {RTMP_TYPE_AGGREGATE, REFUSED_MEDIA, LOG_TEXT("INFO: %s: Received AGGREGATE message\n")},
};
static_assert(sizeof kRefusedTypes / sizeof kRefusedTypes[0] == 5);

void RefuseType(RtmpClient *client, RtmpRecvPkt *pkt, const char *who)
{
    NoteRefusal(pkt, REFUSED_MESSAGE_TYPE, nullptr);
    for (const RefusedType &row : kRefusedTypes) {
        if (row.MsgTypeId == pkt->MsgTypeId) {
            NoteRefusal(pkt, row.Reason, nullptr);
            LogLine(LoggerOf(client->Server), RTMP_LOG_INFO, row.Line, who);
        }
    }
}

int ParseUserControl(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind, const char *who)
{
    const int result = ParseUsrCtrlMsgReq(client, pkt, kind);
    if (result != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot parse user control message\n", who);
    }
    return result;
}

int ParseCommand(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (pkt->MsgLength < 1 || pkt->PayloadData[0] != AMF_STRING) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid AMF encoded buffer\n", who);
        return -1;
    }
    const int result = ParseCmdMsgReq(client, pkt, kind);
    if (result != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot parse command request message\n", who);
    }
    return result;
}

} // namespace

int ParseRequestMsg(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind)
{
    // Also a message that could not be stored and stays incomplete is handled: what has not arrived is zero.
    if (GrowPayload(pkt, pkt->MsgLength) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to tmpRecvStrmPkt->PayloadData\n", __func__);
        return -1;
    }
    switch (pkt->MsgTypeId) {
    case RTMP_TYPE_SET_CHUNK_SIZE:
    case RTMP_TYPE_ABORT:
    case RTMP_TYPE_ACKNOWLEDGEMENT:
    case RTMP_TYPE_WINDOW_ACK_SIZE:
    case RTMP_TYPE_SET_PEER_BANDWIDTH:
        return ParseProtocolControl(client, pkt, kind, __func__);
    case RTMP_TYPE_USER_CONTROL:
        return ParseUserControl(client, pkt, kind, __func__);
    case RTMP_TYPE_AMF0_COMMAND:
        return ParseCommand(client, pkt, kind, __func__);
    default:
        RefuseType(client, pkt, __func__);
        *kind = RTMP_MSG_UNSUPPORTED;
        return 0;
    }
}
