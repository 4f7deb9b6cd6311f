// What both readers of the incoming chunk stream share: the exact one (chunk_reader.cpp) and that of RTMP 1.0
// (standard_chunk_reader.cpp).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

constexpr uint32_t kChunkHeaderMax = 3 + 11 + 4; // basic header, message header, extended timestamp

// How far memory may run ahead of what has arrived, within the one chunk that is being read.
constexpr uint32_t kLeastAhead = 4096;

enum ReadResult {
    READ_DONE,
    READ_FAILED, // the connection is over
    READ_NO_MEMORY,
};

// A chunk header as it was read.
struct ReceivedHeader {
    uint32_t HeaderType;
    uint32_t BasicHeaderForm;
    uint32_t ChunkStreamId;
    uint32_t Length; // bytes, extended timestamp included
};

// ReadFixedHeader reads basic header and message header into `bytes`, which has room for kChunkHeaderMax. The
// bits of `idMask` in the first byte make the chunk stream id. -1: the connection is over.
RTMP_STATUS int ReadFixedHeader(RtmpClient *client, uint8_t idMask, uint8_t *bytes, ReceivedHeader *header);

// ReadExtendedTimestamp reads the four bytes behind a fixed header.
RTMP_STATUS int ReadExtendedTimestamp(RtmpClient *client, uint8_t *bytes, ReceivedHeader *header);

// Whether a header of type 0, 1 or 2 announces an extended timestamp; `messageHeader` is not read for type 3.
bool AnnouncesExtendedTimestamp(const uint8_t *messageHeader, uint32_t headerType);

// MessageLengthOf returns the length of a new message: its own, or that of its chunk stream's last message;
// -1 when there is none.
int32_t MessageLengthOf(RtmpClient *client, const uint8_t *bytes, const ReceivedHeader *header);

// CreateNewRtmpPkt makes a packet from the first chunk of a message: `bytes` of header and payload in
// `chunk`. Null: no memory, or a header that inherits from a chunk stream with nothing stored (logged).
RtmpRecvPkt *CreateNewRtmpPkt(RtmpClient *client, uint32_t bytes, const uint8_t *chunk,
                              uint32_t messageLength, uint32_t headerType, uint32_t basicHeaderForm,
                              uint32_t chunkStreamId);

// ReadIntoPayload reads `piece` bytes behind what the message has. Memory follows what has arrived: a chunk
// costs little before its bytes are there. A piece of no bytes ends the connection.
ReadResult ReadIntoPayload(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t piece);

// LogFailedPiece says, as `who`, why a piece could not be read.
void LogFailedPiece(RtmpClient *client, ReadResult result, const char *who);

// A PieceReader appends the next chunk's payload to a message.
typedef ReadResult (*PieceReader)(RtmpClient *client, RtmpRecvPkt *pkt);

// ContinueMessage runs a PieceReader on a stored message, with the list locked. Null: it failed (logged as
// `who`).
RtmpRecvPkt *ContinueMessage(RtmpClient *client, RtmpRecvPkt *pkt, PieceReader readPiece, const char *who);
}
