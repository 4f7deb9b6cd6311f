#include "message/header_fields.h"

#include "message/send_list.h"
#include "net/byte_writer.h"
#include "net/platform.h"

namespace {

constexpr uint64_t kLargestField = 0xFFFFFF; // all ones: the value is in the extended field

// time:24, and behind the message header [extended time:32]
void PutTime(uint64_t value, uint8_t (&field)[3], uint8_t (&extended)[4])
{
    const bool fits = value < kLargestField;
    ByteWriter shortForm = WriterOver(field, sizeof field);
    PutU24Be(&shortForm, static_cast<uint32_t>(fits ? value : kLargestField));
    ByteWriter longForm = WriterOver(extended, sizeof extended);
    PutU32Be(&longForm, fits ? 0 : static_cast<uint32_t>(value));
}

} // namespace

void StampNow(RtmpClient *client, RtmpSendPkt *pkt)
{
    SetTimestamp(pkt, RtmpGetSystemTime() - client->CreateTime);
}

void SetTimestamp(RtmpSendPkt *pkt, uint64_t timestamp)
{
    pkt->Timestamp = timestamp;
    PutTime(timestamp, pkt->HdrTimestamp, pkt->ExtTimestamp);
}

void SetTimestampDelta(RtmpSendPkt *pkt, uint32_t delta)
{
    PutTime(delta, pkt->HdrTimestampDelta, pkt->ExtTimestampDelta);
}

void SetMsgStreamId(RtmpSendPkt *pkt, uint32_t streamId)
{
    ByteWriter out = WriterOver(pkt->MsgStreamId, sizeof pkt->MsgStreamId);
    PutU32Le(&out, streamId);
}

int MeasureDelta(RtmpClient *client, RtmpSendPkt *pkt)
{
    uint64_t stored = 0;
    const int found = StoredTimestamp(client, pkt->ChunkStreamId, &stored);
    if (found == 1) {
        // In 32 bits: a message that is older than the stored one has a huge delta.
        SetTimestampDelta(pkt, static_cast<uint32_t>(pkt->Timestamp - stored));
    }
    return found < 0 ? -1 : 0;
}
