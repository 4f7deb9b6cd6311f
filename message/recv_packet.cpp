#include "message/recv_packet.h"

#include "amf/object.h"
#include "net/log.h"
#include "net/number.h"
#include "net/record.h"

namespace {

constexpr uint64_t kLeastRoom = 64; // short messages get their whole room at once

// A message never needs more than its length, whatever is wanted.
uint32_t RoomWithin(const RtmpRecvPkt *pkt, uint64_t wanted)
{
    return wanted < pkt->MsgLength ? static_cast<uint32_t>(wanted) : pkt->MsgLength;
}

} // namespace

int NewPayload(RtmpRecvPkt *pkt, uint32_t bytes)
{
    const uint32_t room = RoomWithin(pkt, Larger<uint64_t>(uint64_t{2} * bytes, kLeastRoom));
    pkt->PayloadData = NewArray<uint8_t>(room);
    if (pkt->PayloadData == nullptr) {
        return -1;
    }
    pkt->PayloadRoom = room;
    return 0;
}

uint32_t PayloadRoom(const RtmpRecvPkt *pkt)
{
    return pkt->PayloadRoom > 0 ? pkt->PayloadRoom : pkt->MsgLength;
}

int GrowPayload(RtmpRecvPkt *pkt, uint32_t bytes)
{
    const uint32_t room = PayloadRoom(pkt);
    if (bytes <= room) {
        return 0;
    }
    // Twice as much each time: the copies of a message that grows to its end cost no more than its length.
    const uint32_t grown = RoomWithin(pkt, Larger<uint64_t>(uint64_t{2} * room, bytes));
    uint8_t *payload = static_cast<uint8_t *>(realloc(pkt->PayloadData, grown));
    if (payload == nullptr) {
        return -1;
    }
    memset(payload + room, 0, grown - room);
    pkt->PayloadData = payload;
    pkt->PayloadRoom = grown;
    return 0;
}

// The strings of a decoded list belong to the payload, the list and its holder to the packet.
int FreeDecodedCommand(RtmpServer *server, RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND || pkt->Result.Amf == nullptr) {
        return 0;
    }
    if (FreeDecodedAmfObject(server, pkt->Result.Amf) != 0) {
        return -1;
    }
    free(pkt->Result.Amf);
    pkt->Result.Amf = nullptr;
    return 0;
}

int FreeRecvPkt(RtmpServer *server, RtmpRecvPkt *pkt)
{
    if (FreeDecodedCommand(server, pkt) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Can not free memory allocated for amf object\n", __func__);
        return -1;
    }
    free(pkt->PayloadData);
    free(pkt);
    return 0;
}
