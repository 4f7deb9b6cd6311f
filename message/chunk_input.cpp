#include "message/chunk_input.h"

#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/byte_order.h"
#include "net/handshake.h"
#include "net/log.h"
#include "net/number.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

constexpr uint32_t kNoField = 0xFFFFFF; // in place of a timestamp: the extended timestamp follows
constexpr uint8_t kMessageHeaderLength[] = {11, 7, 3, 0};
static_assert(sizeof kMessageHeaderLength == 4, "one for each header type");

// first byte: type:2 id:6. id 0: id-64 in the next byte; id 1: id-64 in the next two, little-endian.
uint32_t BasicHeaderFormOf(uint8_t id)
{
    return id == 0 ? 1 : id == 1 ? 2 : 0;
}

uint32_t ChunkStreamIdOf(uint8_t id, const uint8_t *header, uint32_t form)
{
    if (form == 0) {
        return id;
    }
    const uint32_t high = form == 2 ? header[2] : 0U;
    return high * 256 + header[1] + 64;
}

// type 0: timestamp:24  length:24  type:8  stream id:32
// type 1: delta:24      length:24  type:8
// type 2: delta:24
// each followed by [extended timestamp:32]
// ParseMessageHeader fills the packet from a header and returns the header's length; a message type id that
// is inherited is left to the caller.
uint32_t ParseMessageHeader(RtmpRecvPkt *pkt, const uint8_t *header, uint32_t headerType)
{
    uint32_t length = kMessageHeaderLength[headerType];
    if (headerType <= 2) {
        memcpy(headerType == 0 ? pkt->Timestamp : pkt->TimestampDelta, header, 3);
    }
    if (headerType <= 1) {
        pkt->MsgTypeId = header[6];
    }
    if (headerType == 0) {
        memcpy(pkt->MsgStreamId, header + 7, sizeof pkt->MsgStreamId);
    }
    if (AnnouncesExtendedTimestamp(header, headerType)) {
        memcpy(pkt->ExtendedTimestamp, header + length, sizeof pkt->ExtendedTimestamp);
        length += 4;
    }
    return length;
}

int InheritTypeId(RtmpClient *client, RtmpRecvPkt *pkt, const char *who)
{
    const int32_t typeId = GetMsgTypeId(client, static_cast<int>(pkt->ChunkStreamId));
    if (typeId == -1) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Getting message type id failed\n",
                     who);
        return -1;
    }
    pkt->MsgTypeId = static_cast<uint32_t>(typeId);
    return 0;
}

int StorePayload(RtmpClient *client, RtmpRecvPkt *pkt, const uint8_t *payload, uint32_t bytes,
                 const char *who)
{
    const uint32_t received = Smaller(bytes, pkt->MsgLength);
    if (NewPayload(pkt, received) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to tmpRecvStrmPkt->PayloadData\n", who);
        return -1;
    }
    memcpy(pkt->PayloadData, payload, received);
    pkt->ReceivedBytes = received;
    pkt->Complete = pkt->MsgLength == received ? 1 : 0;
    return 0;
}

} // namespace

int ReadFixedHeader(RtmpClient *client, uint8_t idMask, uint8_t *bytes, ReceivedHeader *header)
{
    if (ReadNoOfBytes(client, bytes, 1) != 0) {
        return -1;
    }
    const uint8_t id = bytes[0] & idMask;
    header->HeaderType = bytes[0] >> 6;
    header->BasicHeaderForm = BasicHeaderFormOf(id);
    const uint32_t rest = header->BasicHeaderForm + kMessageHeaderLength[header->HeaderType];
    if (rest > 0 && ReadNoOfBytes(client, bytes + 1, rest) != 0) {
        return -1;
    }
    header->ChunkStreamId = ChunkStreamIdOf(id, bytes, header->BasicHeaderForm);
    header->Length = 1 + rest;
    return 0;
}

int ReadExtendedTimestamp(RtmpClient *client, uint8_t *bytes, ReceivedHeader *header)
{
    if (ReadNoOfBytes(client, bytes + header->Length, 4) != 0) {
        return -1;
    }
    header->Length += 4;
    return 0;
}

bool AnnouncesExtendedTimestamp(const uint8_t *messageHeader, uint32_t headerType)
{
    return headerType != 3 && GetU24Be(messageHeader) == kNoField;
}

int32_t MessageLengthOf(RtmpClient *client, const uint8_t *bytes, const ReceivedHeader *header)
{
    if (header->HeaderType <= 1) {
        return static_cast<int32_t>(GetU24Be(bytes + 1 + header->BasicHeaderForm + 3));
    }
    return GetPayloadHdrSize(client, static_cast<int>(header->ChunkStreamId));
}

RtmpRecvPkt *CreateNewRtmpPkt(RtmpClient *client, uint32_t bytes, const uint8_t *chunk,
                              uint32_t messageLength, uint32_t headerType, uint32_t basicHeaderForm,
                              uint32_t chunkStreamId)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    FREE_AT_EXIT RtmpRecvPkt *made = NewRecord<RtmpRecvPkt>();
    if (made == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to tmpRecvStrmPkt\n",
                     __func__);
        return nullptr;
    }
    if (headerType > 3) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid chunk message header type\n", __func__);
        return nullptr;
    }
    made->ChunkStreamId = chunkStreamId;
    made->HeaderType = headerType;
    made->BasicHeaderForm = basicHeaderForm;
    made->MsgLength = messageLength;
    const uint32_t basicLength = 1 + basicHeaderForm;
    const uint32_t headerLength = basicLength + ParseMessageHeader(made, chunk + basicLength, headerType);
    if (headerType >= 2 && InheritTypeId(client, made, __func__) != 0) {
        return nullptr;
    }
    const uint32_t payloadBytes = bytes > headerLength ? bytes - headerLength : 0;
    if (StorePayload(client, made, chunk + headerLength, payloadBytes, __func__) != 0) {
        return nullptr;
    }
    RtmpRecvPkt *pkt = made;
    made = nullptr;
    return pkt;
}

ReadResult ReadIntoPayload(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t piece)
{
    uint32_t end = pkt->ReceivedBytes;
    uint32_t rest = piece;
    do { // a chunk of no bytes is read, too: that ends the connection
        const uint32_t slice = Smaller(rest, Larger(PayloadRoom(pkt) - end, kLeastAhead));
        if (GrowPayload(pkt, end + slice) != 0) {
            return READ_NO_MEMORY;
        }
        if (ReadNoOfBytes(client, pkt->PayloadData + end, slice) != 0) {
            return READ_FAILED;
        }
        end += slice;
        rest -= slice;
    } while (rest > 0);
    pkt->ReceivedBytes = end;
    return READ_DONE;
}

void LogFailedPiece(RtmpClient *client, ReadResult result, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    if (result == READ_NO_MEMORY) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to tmpRecvStrmPkt->PayloadData\n", who);
    } else {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Reading bytes failed\n", who);
    }
}

RtmpRecvPkt *ContinueMessage(RtmpClient *client, RtmpRecvPkt *pkt, PieceReader readPiece, const char *who)
{
    if (LockRecvList(client, who) != 0) {
        return nullptr;
    }
    // A thread that is cancelled in the read leaves the list unlocked.
    UNLOCK_AT_EXIT RtmpMutex *held = &client->RecvStrmListLock;
    const ReadResult result = readPiece(client, pkt);
    held = nullptr;
    if (UnlockRecvList(client, who) != 0) {
        return nullptr;
    }
    if (result != READ_DONE) {
        LogFailedPiece(client, result, who);
        return nullptr;
    }
    return pkt;
}
