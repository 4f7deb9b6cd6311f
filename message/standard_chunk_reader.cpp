#include "message/standard_chunk_reader.h"

#include "message/chunk_input.h"
#include "message/receive_limits.h"
#include "message/recv_list.h"
#include "net/log.h"
#include "net/number.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr uint8_t kWholeIdMask = 0x3F; // RTMP 1.0, 5.3.1.1

// A type 3 chunk has the field when the chunk stream's last header of another type had it
// (RTMP 1.0, 5.3.1.3).
bool HasExtendedTimestamp(const uint8_t *bytes, const ReceivedHeader *header, const RtmpRecvPkt *stored)
{
    if (header->HeaderType == 3) {
        return stored != nullptr && stored->IsTimeExtended != 0;
    }
    return AnnouncesExtendedTimestamp(bytes + 1 + header->BasicHeaderForm, header->HeaderType);
}

// ReadStandardPiece appends this chunk's payload. A message is complete when its length has arrived; one of
// no bytes is so at once, and nothing is read for it.
ReadResult ReadStandardPiece(RtmpClient *client, RtmpRecvPkt *pkt)
{
    const uint32_t piece = Smaller(client->InChunkSize, pkt->MsgLength - pkt->ReceivedBytes);
    const ReadResult result = piece > 0 ? ReadIntoPayload(client, pkt, piece) : READ_DONE;
    if (result == READ_DONE && pkt->ReceivedBytes == pkt->MsgLength) {
        pkt->Complete = 1;
    }
    return result;
}

// Frees a message that is in no list yet, on every way out: the reader's thread may be cancelled in its read.
void FreeUnlisted(RtmpRecvPkt **pkt)
{
    if (*pkt != nullptr) {
        free((*pkt)->PayloadData);
        free(*pkt);
    }
}

// Headers of types 1 to 3 leave the message stream as it was (RTMP 1.0, 5.3.1.2).
void InheritMessageStream(RtmpRecvPkt *pkt, const RtmpRecvPkt *previous)
{
    if (pkt->HeaderType != 0 && previous != nullptr) {
        memcpy(pkt->MsgStreamId, previous->MsgStreamId, sizeof pkt->MsgStreamId);
    }
}

// MakeMessage makes the packet of a new message from its header alone.
RtmpRecvPkt *MakeMessage(RtmpClient *client, const RtmpRecvPkt *previous, const uint8_t *bytes,
                         const ReceivedHeader *header, bool isTimeExtended, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const int32_t length = MessageLengthOf(client, bytes, header);
    if (length < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Getting payload header size failed\n", who);
        return nullptr;
    }
    if (!MayBegin(client, header->ChunkStreamId, static_cast<uint32_t>(length))) {
        return nullptr;
    }
    // The packet gets none of the payload yet: what stands behind the header of a type 3 chunk is its time.
    RtmpRecvPkt *pkt = CreateNewRtmpPkt(client, 0, bytes, static_cast<uint32_t>(length), header->HeaderType,
                                        header->BasicHeaderForm, header->ChunkStreamId);
    if (pkt == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Rtmp packet creation failed\n", who);
        return nullptr;
    }
    if (isTimeExtended) {
        pkt->IsTimeExtended = 1;
        memcpy(pkt->ExtendedTimestamp, bytes + header->Length - sizeof pkt->ExtendedTimestamp,
               sizeof pkt->ExtendedTimestamp);
    }
    InheritMessageStream(pkt, previous);
    return pkt;
}

RtmpRecvPkt *FillMessage(RtmpClient *client, RtmpRecvPkt *made, const char *who)
{
    __attribute__((cleanup(FreeUnlisted))) RtmpRecvPkt *own = made;
    if (made == nullptr) {
        return nullptr;
    }
    const ReadResult result = ReadStandardPiece(client, made);
    if (result != READ_DONE) {
        LogFailedPiece(client, result, who);
        return nullptr;
    }
    own = nullptr;
    return made;
}

} // namespace

RtmpRecvPkt *ReadStandardChunk(RtmpClient *client, const char *who)
{
    uint8_t bytes[kChunkHeaderMax] = {};
    ReceivedHeader header = {};
    if (ReadFixedHeader(client, kWholeIdMask, bytes, &header) != 0) {
        LogFailedPiece(client, READ_FAILED, who);
        return nullptr;
    }
    RtmpRecvPkt *stored = GetRecvPktFromList(client, static_cast<int>(header.ChunkStreamId));
    const bool isTimeExtended = HasExtendedTimestamp(bytes, &header, stored);
    if (isTimeExtended && ReadExtendedTimestamp(client, bytes, &header) != 0) {
        LogFailedPiece(client, READ_FAILED, who);
        return nullptr;
    }
    if (stored == nullptr || stored->Complete != 0) {
        RtmpRecvPkt *made = MakeMessage(client, stored, bytes, &header, isTimeExtended, who);
        return FillMessage(client, made, who);
    }
    // RTMP 1.0, 5.3.1.2.4 only recommends type 3 for the chunks behind a message's first. Another header in
    // the midst of a message therefore continues it, and its fields are those of no message; whether it had
    // an extended timestamp holds for the type 3 chunks behind it.
    stored->IsTimeExtended = isTimeExtended ? 1 : 0;
    return ContinueMessage(client, stored, ReadStandardPiece, who);
}
