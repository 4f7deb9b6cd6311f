#include "message/standard_header.h"

#include "message/header_fields.h"
#include "message/send_list.h"
#include "net/atomic.h"
#include "net/byte_writer.h"

namespace {

constexpr uint64_t kLongestDelta = 0x7FFFFFFF; // RTMP 1.0, 5.1: what is further ahead counts as older

// A type 3 header repeats the delta of the message before. Behind a full header that would be its timestamp.
bool RepeatsDelta(const RtmpSendPkt *next, const RtmpSendPkt *last)
{
    return last->HdrType != 0 && !IsExtended(next->HdrTimestampDelta) &&
           memcmp(next->HdrTimestampDelta, last->HdrTimestampDelta, sizeof next->HdrTimestampDelta) == 0;
}

int ShortestHdrType(RtmpSendPkt *next, const RtmpSendPkt *last)
{
    const uint64_t delta = next->Timestamp - last->Timestamp;
    if (last->HdrType == RTMP_HDR_TYPE_UNSENT || delta > kLongestDelta ||
        memcmp(next->MsgStreamId, last->MsgStreamId, sizeof next->MsgStreamId) != 0) {
        return 0;
    }
    SetTimestampDelta(next, static_cast<uint32_t>(delta)); // others may have gone out since it was generated
    if (next->PayloadLength != last->PayloadLength || next->MsgTypeId != last->MsgTypeId) {
        return 1;
    }
    return RepeatsDelta(next, last) ? 3 : 2;
}

// TakeOver makes `last` describe `sent`. Generators read its time on other threads.
void TakeOver(RtmpSendPkt *last, const RtmpSendPkt *sent)
{
    ForgetPayload(last); // its length is another message's from here on
    StoreShared(&last->Timestamp, sent->Timestamp);
    last->PayloadLength = sent->PayloadLength;
    last->MsgTypeId = sent->MsgTypeId;
    memcpy(last->MsgStreamId, sent->MsgStreamId, sizeof last->MsgStreamId);
    memcpy(last->HdrTimestampDelta, sent->HdrTimestampDelta, sizeof last->HdrTimestampDelta);
    last->HdrType = RTMP_HDR_TYPE_UNSENT;
}

// The extended timestamp of a message's header; null when it has none.
const uint8_t *ExtendedTimeOf(const RtmpSendPkt *message)
{
    switch (message->HdrType) {
    case 1:
    case 2:
        return IsExtended(message->HdrTimestampDelta) ? message->ExtTimestampDelta : nullptr;
    case 3:
        return nullptr; // see RepeatsDelta
    default:            // the first of its chunk stream is a reference already, and not sent yet
        return IsExtended(message->HdrTimestamp) ? message->ExtTimestamp : nullptr;
    }
}

} // namespace

int DecideStandardHdrType(RtmpSendPkt *next, RtmpSendPkt *last)
{
    if (last == nullptr || last == next) {
        return 0;
    }
    const int type = ShortestHdrType(next, last);
    TakeOver(last, next);
    next->HdrType = static_cast<uint8_t>(type);
    return type;
}

// fmt:2  id:6                                      2 to 63
// fmt:2  0:6   id - 64:8                           64 to 319
// fmt:2  1:6   id - 64:16 (little-endian)          320 to 65599
uint32_t PutStandardBasicHdr(uint8_t out[RTMP_BASIC_HDR_MAX], uint32_t hdrType, uint32_t chunkStreamId)
{
    ByteWriter writer = WriterOver(out, RTMP_BASIC_HDR_MAX);
    if (chunkStreamId < kFirstTwoByteId) {
        PutU8(&writer, hdrType << 6 | chunkStreamId);
    } else if (chunkStreamId < kFirstThreeByteId) {
        PutU8(&writer, hdrType << 6);
        PutU8(&writer, chunkStreamId - 64);
    } else {
        PutU8(&writer, hdrType << 6 | 1);
        PutU8(&writer, chunkStreamId - 64);
        PutU8(&writer, (chunkStreamId - 64) >> 8);
    }
    return static_cast<uint32_t>(writer.Next - out);
}

// basic header  [extended timestamp:32]
uint32_t PutStandardSeparator(uint8_t out[RTMP_SEPARATOR_MAX], const RtmpSendPkt *message)
{
    const uint32_t basic = PutStandardBasicHdr(out, 3, message->ChunkStreamId);
    const uint8_t *extended = ExtendedTimeOf(message);
    ByteWriter writer = WriterOver(out + basic, RTMP_SEPARATOR_MAX - basic);
    if (extended != nullptr) {
        PutBytes(&writer, extended, sizeof message->ExtTimestamp);
    }
    return static_cast<uint32_t>(writer.Next - out);
}
