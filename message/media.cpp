#include "message/media.h"

#include "instruments/sender_clock.h"
#include "media/flv_tag.h"
#include "message/header_fields.h"
#include "message/send_list.h"
#include "net/log.h"
#include "net/record.h"

namespace {

constexpr char kMediaGenerator[] = "GenerateRtmpMediaMsg";

void AddressVideo(const RtmpClient *client, uint32_t length, RtmpSendPkt *pkt)
{
    pkt->MsgTypeId = RTMP_TYPE_VIDEO;
    pkt->ChunkStreamId = client->StatusChunkStreamId;
    pkt->PayloadLength = length + FLV_VIDEO_HDR_LEN;
}

void AddressAudio(const RtmpClient *client, uint32_t length, RtmpSendPkt *pkt)
{
    pkt->MsgTypeId = RTMP_TYPE_AUDIO;
    pkt->ChunkStreamId = client->AudioChunkStreamId;
    pkt->PayloadLength = length + FLV_AUDIO_HDR_LEN;
}

// Once a chunk stream is running, media time follows the frames and not the wall clock.
int FollowFrames(RtmpClient *client, uint64_t wantedDelta, RtmpSendPkt *pkt)
{
    uint64_t stored = 0;
    const int found = StoredTimestamp(client, pkt->ChunkStreamId, &stored);
    if (found == 1) {
        SetTimestamp(pkt, stored + wantedDelta);
        SetTimestampDelta(pkt, static_cast<uint32_t>(wantedDelta));
    }
    return found < 0 ? -1 : 0;
}

int AddressMedia(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data, RtmpSendPkt *pkt)
{
    if (msgKind == RTMP_MSG_VIDEO) {
        AddressVideo(client, length, pkt);
    } else if (msgKind == RTMP_MSG_AUDIO) {
        AddressAudio(client, length, pkt);
    } else {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n",
                     kMediaGenerator);
        return -1;
    }
    pkt->MsgKind = static_cast<uint32_t>(msgKind);
    pkt->PayloadData = const_cast<uint8_t *>(data); // borrowed: nobody writes or frees it
    SetMsgStreamId(pkt, client->StreamId);
    return 0;
}

// A chunk stream's time goes on from the message stored for it, never back.
int StampOnTimeline(RtmpClient *client, uint64_t time, RtmpSendPkt *pkt)
{
    uint64_t stored = 0;
    const int found = StoredTimestamp(client, pkt->ChunkStreamId, &stored);
    const uint64_t stamped = found == 1 && time < stored ? stored : time;
    SetTimestamp(pkt, stamped);
    SetTimestampDelta(pkt, found == 1 ? static_cast<uint32_t>(stamped - stored) : 0);
    return found < 0 ? -1 : 0;
}

} // namespace

int FillRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                     uint64_t wantedDelta, RtmpSendPkt *pkt)
{
    if (AddressMedia(client, msgKind, length, data, pkt) != 0) {
        return -1;
    }
    StampNow(client, pkt);
    if (FollowFrames(client, wantedDelta, pkt) != 0) {
        return -1;
    }
    NoteStampedTime(client, pkt);
    return 0;
}

int FillTimelineMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                         const RtmpFrameTime *time, RtmpSendPkt *pkt)
{
    if (AddressMedia(client, msgKind, length, data, pkt) != 0) {
        return -1;
    }
    return StampOnTimeline(client, PlaceOnTimeline(client, time), pkt);
}

RtmpSendPkt *GenerateRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                                  uint64_t wantedDelta)
{
    RtmpSendPkt *pkt = NewRecord<RtmpSendPkt>();
    if (pkt == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to sndStrmPkt\n", __func__);
        return nullptr;
    }
    if (FillRtmpMediaMsg(client, msgKind, length, data, wantedDelta, pkt) != 0) {
        free(pkt); // the payload is borrowed
        return nullptr;
    }
    return pkt;
}
