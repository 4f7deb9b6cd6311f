#include "message/chunk_reader.h"

#include "message/chunk_input.h"
#include "message/receive_limits.h"
#include "message/recv_list.h"
#include "message/standard_chunk_reader.h"
#include "net/handshake.h"
#include "net/log.h"
#include "net/number.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

// KEPT: bit 4 of the id is masked out (0x3F would be RTMP 1.0, 5.3.1.1), so that ids 16 to 31 and 48 to 63
// arrive 16 lower, and 16 and 17 announce longer forms. Required; replies go out on the lower id.
constexpr uint8_t kChunkStreamIdMask = 0x2F;

// ReadExactHeader reads a whole header into `bytes`.
int ReadExactHeader(RtmpClient *client, uint8_t *bytes, ReceivedHeader *header)
{
    if (ReadFixedHeader(client, kChunkStreamIdMask, bytes, header) != 0) {
        return -1;
    }
    // KEPT: a type 3 chunk has no timestamp field and never an extended one, whatever its stream uses.
    // Required; changes where the next byte belongs.
    const uint8_t *messageHeader = bytes + 1 + header->BasicHeaderForm;
    return AnnouncesExtendedTimestamp(messageHeader, header->HeaderType)
               ? ReadExtendedTimestamp(client, bytes, header)
               : 0;
}

// ReadExactPiece appends this chunk's payload to a stored message.
ReadResult ReadExactPiece(RtmpClient *client, RtmpRecvPkt *pkt)
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

RtmpRecvPkt *BeginMessage(RtmpClient *client, uint8_t **chunk, const ReceivedHeader *header, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const int32_t length = MessageLengthOf(client, *chunk, header);
    if (length < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Getting payload header size failed\n", who);
        return nullptr;
    }
    const uint32_t messageLength = static_cast<uint32_t>(length);
    if (!MayBegin(client, header->ChunkStreamId, messageLength)) {
        return nullptr;
    }
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

RtmpRecvPkt *ReadExactChunk(RtmpClient *client, const char *who)
{
    // The buffer grows when the payload's size is known: a player that sends nothing holds no room for a
    // chunk, however large a chunk it has announced.
    FREE_AT_EXIT uint8_t *chunk = NewArray<uint8_t>(kChunkHeaderMax);
    if (chunk == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to dataBuff\n", who);
        return nullptr;
    }
    ReceivedHeader header = {};
    if (ReadExactHeader(client, chunk, &header) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Reading bytes failed\n", who);
        return nullptr;
    }
    RtmpRecvPkt *stored = GetRecvPktFromList(client, static_cast<int>(header.ChunkStreamId));
    if (stored != nullptr && stored->Complete == 0) {
        return ContinueMessage(client, stored, ReadExactPiece, who);
    }
    return BeginMessage(client, &chunk, &header, who);
}

constexpr uint32_t FlagOf(enum PlayerRule rule)
{
    return kPlayerRules[rule].Flag;
}

// The reader's rules have one flag, so that one question chooses the reader for all of them.
static_assert(FlagOf(RULE_CHUNK_STREAM_ID) == FlagOf(RULE_MESSAGE_END) &&
              FlagOf(RULE_EMPTY_MESSAGE) == FlagOf(RULE_MESSAGE_END) &&
              FlagOf(RULE_EXTENDED_TIME_IN) == FlagOf(RULE_MESSAGE_END) &&
              FlagOf(RULE_MESSAGE_STREAM_IN) == FlagOf(RULE_MESSAGE_END));

} // namespace

RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client)
{
    return Allows(client, RULE_MESSAGE_END) ? ReadStandardChunk(client, __func__)
                                            : ReadExactChunk(client, __func__);
}
