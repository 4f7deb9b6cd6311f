#include "message/chunk_header.h"

#include "message/header_fields.h"
#include "message/standard_header.h"
#include "net/atomic.h"
#include "net/byte_writer.h"
#include "net/log.h"
#include "net/player_rules.h"
#include "net/record.h"

namespace {

constexpr uint32_t kNoBasicHdr = 0; // the value of a chunk stream id that has no basic header
constexpr uint32_t kFirstInvalidId = 65600;
constexpr uint32_t kMsgHdrLength[] = {11, 7, 3, 0}; // by header type
static_assert(sizeof kMsgHdrLength / sizeof kMsgHdrLength[0] == 4, "one length for each header type");

bool IsHdrType(int hdrType)
{
    return hdrType >= 0 && hdrType <= 3;
}

// KEPT: chunk stream id 0 has room for two bytes of basic header, and none is written: the message header
// starts at the first byte and the last two bytes stay zero. Required; bytes on the wire of the answer to a
// streaming service's ping and of NetConnection.Connect.Failed.
uint32_t BasicHdrLength(uint32_t chunkStreamId)
{
    if (chunkStreamId == kNoBasicHdr) {
        return 2;
    }
    if (chunkStreamId < kFirstTwoByteId) {
        return 1;
    }
    return chunkStreamId < kFirstThreeByteId ? 2 : 3;
}

// fmt:2  id:6                                   1 to 63
// fmt:2  0:6   id - 64:8                        64 to 319
// fmt:2  1:6   (id - 64) / 256:8  id - 64:8     320 to 65599
//
// KEPT: the three-byte form carries the high byte first, where RTMP 1.0, 5.3.1.1 has the low byte first.
// Required; changes bytes on the wire of a host's own messages. The library's use no id so high.
void PutBasicHdr(ByteWriter *out, uint32_t hdrType, uint32_t chunkStreamId)
{
    if (chunkStreamId == kNoBasicHdr || chunkStreamId >= kFirstInvalidId) {
        return;
    }
    if (chunkStreamId < kFirstTwoByteId) {
        PutU8(out, hdrType << 6 | chunkStreamId);
    } else if (chunkStreamId < kFirstThreeByteId) {
        PutU8(out, hdrType << 6);
        PutU8(out, chunkStreamId - 64);
    } else {
        PutU8(out, hdrType << 6 | 1);
        PutU16Be(out, chunkStreamId - 64);
    }
}

// StartHdr begins every header with the type in its first byte, which the fields then overwrite. Without a
// basic header a type 3 header has no fields, and that byte is all there is of it.
ByteWriter StartHdr(RtmpChunkHdr *hdr, uint32_t hdrType, uint32_t chunkStreamId)
{
    ByteWriter out = WriterOver(hdr->Data, hdr->Length);
    ByteWriter first = out;
    PutU8(&first, hdrType);
    PutBasicHdr(&out, hdrType, chunkStreamId);
    return out;
}

const uint8_t *TimeFieldOf(const RtmpSendPkt *pkt, int hdrType)
{
    return hdrType == 0 ? pkt->HdrTimestamp : pkt->HdrTimestampDelta;
}

// KEPT: a type 3 header never carries the extended field, whatever the time. Required; bytes on the wire.
uint32_t ExtendedLength(const RtmpSendPkt *pkt, int hdrType)
{
    return hdrType != 3 && IsExtended(TimeFieldOf(pkt, hdrType)) ? 4 : 0;
}

void PutExtendedDelta(ByteWriter *out, const RtmpSendPkt *pkt)
{
    if (IsExtended(pkt->HdrTimestampDelta)) {
        PutBytes(out, pkt->ExtTimestampDelta, sizeof pkt->ExtTimestampDelta);
    }
}

uint32_t HdrLength(const RtmpSendPkt *pkt, int hdrType)
{
    return BasicHdrLength(pkt->ChunkStreamId) + kMsgHdrLength[hdrType] + ExtendedLength(pkt, hdrType);
}

void WriteHdr(RtmpSendPkt *pkt, int hdrType, RtmpChunkHdr *hdr)
{
    switch (hdrType) {
    case 0:
        GenRtmpType0MsgHdr(pkt, hdr);
        break;
    case 1:
        GenRtmpType1MsgHdr(pkt, hdr);
        break;
    case 2:
        GenRtmpType2MsgHdr(pkt, hdr);
        break;
    default:
        GenRtmpType3MsgHdr(static_cast<int>(pkt->ChunkStreamId), hdr);
        break;
    }
}

// MoveReferenceTime makes a message the one against which the next delta of its chunk stream is taken.
// Generators read the field on other threads.
void MoveReferenceTime(RtmpSendPkt *reference, const RtmpSendPkt *sent)
{
    StoreShared(&reference->Timestamp, sent->Timestamp);
}

} // namespace

int ChooseHdrType(const RtmpClient *client, RtmpSendPkt *message, RtmpSendPkt *stored)
{
    return Allows(client, RULE_HEADER_TYPE) ? DecideStandardHdrType(message, stored)
                                            : DecideMsgHdrType(message, stored);
}

int DecideMsgHdrType(RtmpSendPkt *newPkt, RtmpSendPkt *prevPkt)
{
    if (prevPkt == nullptr ||
        memcmp(newPkt->MsgStreamId, prevPkt->MsgStreamId, sizeof newPkt->MsgStreamId) != 0) {
        return 0;
    }
    MoveReferenceTime(prevPkt, newPkt);
    if (newPkt->PayloadLength != prevPkt->PayloadLength || newPkt->MsgTypeId != prevPkt->MsgTypeId) {
        return 1;
    }
    // KEPT: only the three bytes count, so two deltas that both overflow are equal whatever they are, and
    // the previous message's delta is that of the first message stored, not of the last one sent. Required;
    // changes bytes on the wire.
    const bool sameDelta =
        memcmp(newPkt->HdrTimestampDelta, prevPkt->HdrTimestampDelta, sizeof newPkt->HdrTimestampDelta) == 0;
    return sameDelta ? 3 : 2;
}

RtmpChunkHdr *GenerateChunkHdr(RtmpClient *client, RtmpSendPkt *pkt, uint32_t /*msgKind*/, int hdrType)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    RtmpChunkHdr *hdr = NewRecord<RtmpChunkHdr>();
    if (hdr == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to chunkHdr\n", __func__);
        return nullptr;
    }
    uint8_t bytes[RTMP_CHUNK_HDR_MAX];
    RtmpChunkHdr filled = {0, bytes};
    if (FillChunkHdrFor(client, pkt, hdrType, &filled) != 0) {
        free(hdr);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid chunk stream ID\n", __func__);
        return nullptr;
    }
    if (filled.Length == 0) {
        return hdr;
    }
    hdr->Length = filled.Length;
    hdr->Data = NewArray<uint8_t>(filled.Length);
    if (hdr->Data == nullptr) {
        free(hdr);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to chunkHdr->Data\n",
                     __func__);
        return nullptr;
    }
    memcpy(hdr->Data, bytes, filled.Length);
    return hdr;
}

int FillChunkHdr(RtmpSendPkt *pkt, int hdrType, RtmpChunkHdr *hdr)
{
    hdr->Length = 0;
    if (pkt->ChunkStreamId >= kFirstInvalidId) {
        return -1;
    }
    if (!IsHdrType(hdrType)) {
        return 0;
    }
    hdr->Length = HdrLength(pkt, hdrType);
    memset(hdr->Data, 0, hdr->Length);
    WriteHdr(pkt, hdrType, hdr);
    return 0;
}

int FillChunkHdrFor(const RtmpClient *client, RtmpSendPkt *pkt, int hdrType, RtmpChunkHdr *hdr)
{
    if (FillChunkHdr(pkt, hdrType, hdr) != 0) {
        return -1;
    }
    if (hdr->Length > 0 && pkt->ChunkStreamId >= kFirstThreeByteId && Allows(client, RULE_THREE_BYTE_ID)) {
        (void)PutStandardBasicHdr(hdr->Data, static_cast<uint32_t>(hdrType), pkt->ChunkStreamId); // as long
    }
    return 0;
}

// basic header  timestamp:24  length:24  type:8  stream id:32 (little-endian)  [extended timestamp:32]
int GenRtmpType0MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr)
{
    ByteWriter out = StartHdr(hdr, 0, pkt->ChunkStreamId);
    PutBytes(&out, pkt->HdrTimestamp, sizeof pkt->HdrTimestamp);
    PutU24Be(&out, pkt->PayloadLength);
    PutU8(&out, pkt->MsgTypeId);
    PutBytes(&out, pkt->MsgStreamId, sizeof pkt->MsgStreamId);
    if (IsExtended(pkt->HdrTimestamp)) {
        PutBytes(&out, pkt->ExtTimestamp, sizeof pkt->ExtTimestamp);
    }
    return 0;
}

// basic header  timestamp delta:24  length:24  type:8  [extended delta:32]
int GenRtmpType1MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr)
{
    ByteWriter out = StartHdr(hdr, 1, pkt->ChunkStreamId);
    PutBytes(&out, pkt->HdrTimestampDelta, sizeof pkt->HdrTimestampDelta);
    PutU24Be(&out, pkt->PayloadLength);
    PutU8(&out, pkt->MsgTypeId);
    PutExtendedDelta(&out, pkt);
    return 0;
}

// basic header  timestamp delta:24  [extended delta:32]
int GenRtmpType2MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr)
{
    ByteWriter out = StartHdr(hdr, 2, pkt->ChunkStreamId);
    PutBytes(&out, pkt->HdrTimestampDelta, sizeof pkt->HdrTimestampDelta);
    PutExtendedDelta(&out, pkt);
    return 0;
}

// basic header
int GenRtmpType3MsgHdr(int chunkStreamId, RtmpChunkHdr *hdr)
{
    (void)StartHdr(hdr, 3, static_cast<uint32_t>(chunkStreamId)); // no message header follows
    return 0;
}
