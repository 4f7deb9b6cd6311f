#include "message/send_packet.h"

#include "amf/encode.h"
#include "message/header_fields.h"
#include "message/send_list.h"
#include "net/log.h"
#include "net/record.h"

RtmpSendPkt *NewSendPkt(RtmpClient *client, uint32_t msgKind, uint32_t msgTypeId, const char *who)
{
    RtmpSendPkt *pkt = NewRecord<RtmpSendPkt>();
    if (pkt == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to sndStrmPkt\n", who);
        return nullptr;
    }
    pkt->MsgKind = msgKind;
    pkt->MsgTypeId = msgTypeId;
    StampNow(client, pkt);
    return pkt;
}

RtmpSendPkt *FinishSendPkt(RtmpClient *client, RtmpSendPkt *pkt)
{
    if (MeasureDelta(client, pkt) != 0) {
        FreeSendPkt(pkt);
        return nullptr;
    }
    return pkt;
}

int CopyPayload(RtmpClient *client, RtmpSendPkt *pkt, const uint8_t *bytes, uint32_t length, const char *who)
{
    pkt->PayloadData = NewArray<uint8_t>(length);
    if (pkt->PayloadData == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to sndStrmPkt->PayloadData\n", who);
        return -1;
    }
    memcpy(pkt->PayloadData, bytes, length);
    pkt->PayloadLength = length;
    return 0;
}

int EncodePayload(RtmpClient *client, RtmpSendPkt *pkt, AmfObject *values, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const int32_t length = static_cast<int32_t>(GetAmfEncBuffSize(client->Server, values));
    if (length < 1) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while calculating payload size\n",
                     who);
        return -1;
    }
    pkt->PayloadData = EncodeAmfBuffer(client->Server, length, values);
    if (pkt->PayloadData == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while generating payload data\n", who);
        return -1;
    }
    pkt->PayloadLength = static_cast<uint32_t>(length);
    return 0;
}
