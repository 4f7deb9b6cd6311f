#include "message/data.h"

#include "amf/encode.h"
#include "amf/object.h"
#include "message/header_fields.h"
#include "message/send_list.h"
#include "message/send_packet.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/player_rules.h"

namespace {

constexpr char kDataGenerator[] = "GenerateRtmpDataMsg";

// onStatus, {code: NetStream.Data.Start}
int PutDataStart(RtmpServer *server, AmfObject *values)
{
    RtmpLogger *logger = LoggerOf(server);
    if (WriteAmfString(server, values, nullptr, "onStatus") != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf onStatus\n", kDataGenerator);
        return -1;
    }
    AmfObject members = {};
    if (WriteAmfString(server, &members, "code", "NetStream.Data.Start") != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf code\n", kDataGenerator);
        return -1;
    }
    if (WriteAmfObject(server, values, &members) != 0) {
        FreeAmfObject(server, &members, 1);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf sub-object1\n", kDataGenerator);
        return -1;
    }
    return 0;
}

// |RtmpSampleAccess, audio: false, video: false
int PutSampleAccess(RtmpServer *server, AmfObject *values)
{
    if (WriteAmfString(server, values, nullptr, "|RtmpSampleAccess") != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf |RtmpSampleAccess\n",
                     kDataGenerator);
        return -1;
    }
    if (WriteAmfBoolean(server, values, nullptr, 0) != 0 ||
        WriteAmfBoolean(server, values, nullptr, 0) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf\n", kDataGenerator);
        return -1;
    }
    return 0;
}

int WriteEncodedBody(RtmpClient *client, RtmpSendPkt *pkt)
{
    AmfObject values = {};
    int status = pkt->MsgKind == RTMP_MSG_DATA_START ? PutDataStart(client->Server, &values)
                                                     : PutSampleAccess(client->Server, &values);
    if (status == 0) {
        status = EncodePayload(client, pkt, &values, kDataGenerator);
    }
    FreeAmfObject(client->Server, &values, 1);
    return status;
}

// The session's ready-made body; a record that is replaced meanwhile stays alive.
int ReferToMetaData(RtmpClient *client, RtmpSendPkt *pkt)
{
    const RtmpSession *session = LoadShared(&client->Session);
    if (session == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Client not connected to valid session\n", kDataGenerator);
        return -1;
    }
    const CodecInfo *codecInfo = LoadShared(&session->CodecInfo);
    if (codecInfo == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Codec information not added in session\n", kDataGenerator);
        return -1;
    }
    if (Allows(client, RULE_METADATA) && codecInfo->PlayerMetaData != nullptr) {
        pkt->PayloadData = codecInfo->PlayerMetaData;
        pkt->PayloadLength = codecInfo->PlayerMetaDataLen;
        return 0;
    }
    pkt->PayloadData = codecInfo->MetaData;
    pkt->PayloadLength = codecInfo->MetaDataLen;
    return 0;
}

} // namespace

RtmpSendPkt *GenerateRtmpDataMsg(RtmpClient *client, void * /*recvPkt*/, uint32_t msgKind)
{
    RtmpSendPkt *pkt = NewSendPkt(client, msgKind, RTMP_TYPE_AMF0_DATA, __func__);
    if (pkt == nullptr) {
        return nullptr;
    }
    pkt->ChunkStreamId = client->StatusChunkStreamId;
    SetMsgStreamId(pkt, client->StreamId);
    const int status =
        msgKind == RTMP_MSG_META_DATA ? ReferToMetaData(client, pkt) : WriteEncodedBody(client, pkt);
    if (status != 0) {
        FreeSendPkt(pkt);
        return nullptr;
    }
    return FinishSendPkt(client, pkt);
}
