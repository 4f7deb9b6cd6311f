#include "delivery/write/client_send.h"

#include "delivery/write/pieces.h"
#include "delivery/write/socket_writer.h"
#include "message/chunk_header.h"
#include "message/send_list.h"
#include "message/timeline.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

// Frees a chunk header with its bytes, on every way out.
void FreeChunkHdr(RtmpChunkHdr **header)
{
    if (*header != nullptr) {
        free((*header)->Data);
        free(*header);
    }
}

// Frees a message that no list owns, on every way out: the sender's thread may be cancelled in its write.
void FreeOwnMessage(RtmpSendPkt **message)
{
    FreeSendPkt(*message);
}

// Whether a message is in its client's send list, as the reference of its chunk stream.
struct Reference {
    RtmpSendPkt *Previous; // what the list held before; null: the message itself has been stored
    bool Stored;
};

int FindReference(RtmpClient *client, RtmpSendPkt *message, Reference *reference)
{
    reference->Previous = GetSendPktFromList(client, static_cast<int>(message->ChunkStreamId));
    reference->Stored = reference->Previous == nullptr;
    return reference->Stored ? AddSendPkt(client, message) : 0;
}

// WriteMessage logs as SendMsgToClient.
int WriteMessage(RtmpClient *client, const RtmpSendPkt *message, const RtmpChunkHdr *header, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const uint32_t chunkSize = OutgoingChunkSize(client->Server);
    FREE_AT_EXIT RtmpPiece *pieces = NewArray<RtmpPiece>(PiecesFor(message->PayloadLength, chunkSize, 1));
    if (pieces == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to chunks\n", who);
        return -1;
    }
    pieces[0] = {header->Data, header->Length, 0};
    PieceCutter cutter = CutInto(pieces, chunkSize);
    CutPart(&cutter, message->PayloadData, message->PayloadLength);
    if (SendMessage(client, pieces, cutter.Count, message, NOTHING_FOLLOWS) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Failed to send message\n", who);
        return -1;
    }
    return 0;
}

// KEPT: a ping response has a full header, whatever is stored. Required; bytes on the wire. The next delta is
// taken from the time the library would have stamped, or, for players of RTMP_PLAYERS_CHUNKS_OUT, from the 0
// that the header says.
int HdrTypeOf(const RtmpClient *client, RtmpSendPkt *message, uint32_t kind, RtmpSendPkt *stored)
{
    if (kind != RTMP_MSG_PING_RESPONSE) {
        return ChooseHdrType(client, message, stored);
    }
    if (Allows(client, RULE_HEADER_TYPE)) {
        StoreShared(&message->Timestamp, uint64_t{0});
    }
    (void)ChooseHdrType(client, message, stored); // moves the stored time on
    if (stored != nullptr) {
        message->HdrType = 0;
    }
    return 0;
}

// A message that a host has stored itself is its list's already, and never freed here.
RtmpSendPkt *UnlessListed(RtmpSendPkt *message)
{
    return message != nullptr && message->Stored == 0 ? message : nullptr;
}

// A header that announces bytes which do not follow would make the peer take the next message for them.
bool CanBeWritten(const RtmpSendPkt *message)
{
    return message != nullptr && (message->PayloadLength == 0 || message->PayloadData != nullptr);
}

// SendOwned takes the message over. `keepFailed`: a message that became a reference stays one although it
// could not be sent.
int SendOwned(RtmpClient *client, RtmpSendPkt *message, uint32_t kind, bool keepFailed)
{
    constexpr const char *who = "SendMsgToClient";
    RtmpLogger *logger = LoggerOf(client->Server);
    __attribute__((cleanup(FreeOwnMessage), unused)) RtmpSendPkt *own = UnlessListed(message);
    if (!CanBeWritten(message)) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", who);
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    if (StampReply(client, message, kind) != 0) {
        return -1;
    }
    Reference reference;
    if (FindReference(client, message, &reference) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot add send packet in list\n", who);
        return -1;
    }
    own = reference.Stored || reference.Previous == message ? nullptr : message;
    const int headerType = HdrTypeOf(client, message, kind, reference.Previous);
    __attribute__((cleanup(FreeChunkHdr))) RtmpChunkHdr *header =
        GenerateChunkHdr(client, message, kind, headerType);
    int result = -1;
    if (header == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Generation of chunk header failed\n", who);
    } else {
        result = WriteMessage(client, message, header, who);
    }
    if (result == 0) {
        (reference.Stored ? message : reference.Previous)->HdrType = static_cast<uint8_t>(headerType);
    }
    if (reference.Stored && (kind == RTMP_MSG_DELETE_STREAM || (result != 0 && !keepFailed))) {
        (void)RemoveSendPkt(client, message); // stored a moment ago
    }
    return result;
}

} // namespace

int SendMsgToClient(RtmpClient *client, RtmpSendPkt *message, uint32_t kind)
{
    return SendOwned(client, message, kind, true);
}

int SendOrForget(RtmpClient *client, RtmpSendPkt *message, uint32_t kind)
{
    return SendOwned(client, message, kind, false);
}
