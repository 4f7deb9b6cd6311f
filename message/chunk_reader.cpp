#include "message/chunk_reader.h"

#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/byte_order.h"
#include "net/handshake.h"
#include "net/log.h"
#include "net/number.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

// Bits of the first basic-header byte that make the chunk stream id; 0x3F would be RTMP 1.0, 5.3.1.1.
constexpr uint8_t kChunkStreamIdMask = 0x2F;

constexpr uint32_t kHeaderMax = 3 + 11 + 4; // basic header, message header, extended timestamp
constexpr uint32_t kNoField = 0xFFFFFF;     // in place of a timestamp: the extended timestamp follows
constexpr uint8_t kMessageHeaderLength[] = {11, 7, 3, 0};
static_assert(sizeof kMessageHeaderLength == 4, "one for each header type");

// How far memory may run ahead of what has arrived, within the one chunk that is being read.
constexpr uint32_t kLeastAhead = 4096;

enum ReadResult {
    READ_DONE,
    READ_FAILED, // the connection is over
    READ_NO_MEMORY,
};

// A chunk header as it was read.
struct ChunkHeader {
    uint32_t HeaderType;
    uint32_t BasicHeaderForm;
    uint32_t ChunkStreamId;
    uint32_t Length; // bytes, extended timestamp included
};

// first byte: type:2 id:6. id 0: id-64 in the next byte; id 1: id-64 in the next two, little-endian.
uint32_t BasicHeaderFormOf(uint8_t firstByte)
{
    // KEPT: bit 4 of the id is masked out, so that ids 16 to 31 and 48 to 63 arrive 16 lower, and 16 and 17
    // announce longer forms. Required; replies go out on the lower id.
    const uint8_t id = firstByte & kChunkStreamIdMask;
    return id == 0 ? 1 : id == 1 ? 2 : 0;
}

uint32_t ChunkStreamIdOf(const uint8_t *header, uint32_t form)
{
    if (form == 0) {
        return header[0] & kChunkStreamIdMask;
    }
    const uint32_t high = form == 2 ? header[2] : 0U;
    return high * 256 + header[1] + 64;
}

bool HasExtendedTimestamp(const uint8_t *messageHeader, uint32_t headerType)
{
    // KEPT: a type 3 chunk has no timestamp field and never an extended one, whatever its stream uses.
    // Required; changes where the next byte belongs.
    return headerType != 3 && GetU24Be(messageHeader) == kNoField;
}

// ReadChunkHeader reads a whole header into `bytes`, kHeaderMax of them at most.
int ReadChunkHeader(RtmpClient *client, uint8_t *bytes, ChunkHeader *header)
{
    if (ReadNoOfBytes(client, bytes, 1) != 0) {
        return -1;
    }
    header->HeaderType = bytes[0] >> 6;
    header->BasicHeaderForm = BasicHeaderFormOf(bytes[0]);
    const uint32_t rest = header->BasicHeaderForm + kMessageHeaderLength[header->HeaderType];
    if (rest > 0 && ReadNoOfBytes(client, bytes + 1, rest) != 0) {
        return -1;
    }
    header->ChunkStreamId = ChunkStreamIdOf(bytes, header->BasicHeaderForm);
    header->Length = 1 + rest;
    if (HasExtendedTimestamp(bytes + 1 + header->BasicHeaderForm, header->HeaderType)) {
        if (ReadNoOfBytes(client, bytes + header->Length, 4) != 0) {
            return -1;
        }
        header->Length += 4;
    }
    return 0;
}

// ReadIntoPayload reads a chunk's payload behind what the message has. Memory follows what has arrived: a
// chunk costs little before its bytes are there.
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

// ReadNextPiece appends this chunk's payload to a stored message.
ReadResult ReadNextPiece(RtmpClient *client, RtmpRecvPkt *pkt)
{
    const uint32_t remaining = pkt->MsgLength - pkt->ReceivedBytes;
    const bool fullChunk = client->InChunkSize <= remaining;
    const ReadResult result = ReadIntoPayload(client, pkt, fullChunk ? client->InChunkSize : remaining);
    if (result != READ_DONE) {
        return result;
    }
    // KEPT: a chunk that is full does not complete its message, also when it brings the last byte. The next
    // chunk of the stream then asks for nothing, which ends the connection. Required.
    if (!fullChunk) {
        pkt->Complete = 1;
    }
    return READ_DONE;
}

RtmpRecvPkt *ContinueMessage(RtmpClient *client, RtmpRecvPkt *pkt, const char *who)
{
    if (LockRecvList(client, who) != 0) {
        return nullptr;
    }
    // A thread that is cancelled in the read leaves the list unlocked.
    UNLOCK_AT_EXIT RtmpMutex *held = &client->RecvStrmListLock;
    const ReadResult result = ReadNextPiece(client, pkt);
    held = nullptr;
    if (UnlockRecvList(client, who) != 0) {
        return nullptr;
    }
    switch (result) {
    case READ_DONE:
        return pkt;
    case READ_FAILED:
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Reading bytes failed\n", who);
        return nullptr;
    case READ_NO_MEMORY:
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to tmpRecvStrmPkt->PayloadData\n", who);
        return nullptr;
    }
    return nullptr;
}

// MessageLengthOf returns the length of a new message: its own, or that of its chunk stream's last message;
// -1 when there is none.
int32_t MessageLengthOf(RtmpClient *client, const uint8_t *bytes, const ChunkHeader *header)
{
    if (header->HeaderType <= 1) {
        return static_cast<int32_t>(GetU24Be(bytes + 1 + header->BasicHeaderForm + 3));
    }
    return GetPayloadHdrSize(client, static_cast<int>(header->ChunkStreamId));
}

// ReadFirstPiece reads the payload of a message's first chunk behind its header. As in ReadIntoPayload, the
// buffer grows with what arrives.
ReadResult ReadFirstPiece(RtmpClient *client, uint8_t **chunk, uint32_t headerLength, uint32_t piece)
{
    uint32_t done = 0;
    do {
        const uint32_t slice = Smaller(piece - done, Larger(done, kLeastAhead));
        uint8_t *grown = static_cast<uint8_t *>(realloc(*chunk, headerLength + uint64_t{done} + slice));
        if (grown == nullptr) {
            return READ_NO_MEMORY;
        }
        *chunk = grown;
        if (ReadNoOfBytes(client, grown + headerLength + done, slice) != 0) {
            return READ_FAILED;
        }
        done += slice;
    } while (done < piece);
    return READ_DONE;
}

RtmpRecvPkt *BeginMessage(RtmpClient *client, uint8_t **chunk, const ChunkHeader *header, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const int32_t length = MessageLengthOf(client, *chunk, header);
    if (length < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Getting payload header size failed\n", who);
        return nullptr;
    }
    const uint32_t messageLength = static_cast<uint32_t>(length);
    const uint32_t piece = Smaller(client->InChunkSize, messageLength);
    const ReadResult result = ReadFirstPiece(client, chunk, header->Length, piece);
    if (result == READ_NO_MEMORY) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to dataBuff\n", who);
        return nullptr;
    }
    if (result != READ_DONE) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Reading bytes failed\n", who);
        return nullptr;
    }
    RtmpRecvPkt *pkt = CreateNewRtmpPkt(client, header->Length + piece, *chunk, messageLength,
                                        header->HeaderType, header->BasicHeaderForm, header->ChunkStreamId);
    if (pkt == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Rtmp packet creation failed\n", who);
    }
    return pkt;
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
    if (HasExtendedTimestamp(header, headerType)) {
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

RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client)
{
    // The buffer grows when the payload's size is known: a player that sends nothing holds no room for a
    // chunk, however large a chunk it has announced.
    FREE_AT_EXIT uint8_t *chunk = NewArray<uint8_t>(kHeaderMax);
    if (chunk == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to dataBuff\n", __func__);
        return nullptr;
    }
    ChunkHeader header = {};
    if (ReadChunkHeader(client, chunk, &header) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Reading bytes failed\n", __func__);
        return nullptr;
    }
    RtmpRecvPkt *stored = GetRecvPktFromList(client, static_cast<int>(header.ChunkStreamId));
    if (stored != nullptr && stored->Complete == 0) {
        return ContinueMessage(client, stored, __func__);
    }
    return BeginMessage(client, &chunk, &header, __func__);
}
