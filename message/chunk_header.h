// The header of a message's first chunk (RTMP 1.0, 5.3.1).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef struct RtmpChunkHdr {
    uint32_t Length;
    uint8_t *Data;
} RtmpChunkHdr;

enum { RTMP_CHUNK_HDR_MAX = 18 }; // basic header 3, message header 11, extended timestamp 4

// ChooseHdrType decides which header (0 to 3) a message gets for this client, against the one stored for its
// chunk stream (null: none): by DecideMsgHdrType or, for players of RTMP_PLAYERS_CHUNKS_OUT, by
// DecideStandardHdrType. The caller holds the client's WriteLock.
int ChooseHdrType(const RtmpClient *client, RtmpSendPkt *message, RtmpSendPkt *stored);

// DecideMsgHdrType picks the shortest header (0 to 3) that tells `newPkt` from `prevPkt`, the message stored
// for its chunk stream, and moves the stored timestamp on. No previous message: 0.
int DecideMsgHdrType(RtmpSendPkt *newPkt, RtmpSendPkt *prevPkt);

// GenerateChunkHdr writes the header. The caller frees Data and the record. Null: no memory, or a chunk
// stream id above 65599 (logged).
RtmpChunkHdr *GenerateChunkHdr(RtmpClient *client, RtmpSendPkt *pkt, uint32_t msgKind, int hdrType);

// FillChunkHdr does the same without allocating: hdr->Data has room for RTMP_CHUNK_HDR_MAX bytes. -1: the
// chunk stream id is invalid (not logged).
RTMP_STATUS int FillChunkHdr(RtmpSendPkt *pkt, int hdrType, RtmpChunkHdr *hdr);

// FillChunkHdrFor does the same with the byte order of the chunk stream id that holds for the client.
RTMP_STATUS int FillChunkHdrFor(const RtmpClient *client, RtmpSendPkt *pkt, int hdrType, RtmpChunkHdr *hdr);

int GenRtmpType0MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr);
int GenRtmpType1MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr);
int GenRtmpType2MsgHdr(RtmpSendPkt *pkt, RtmpChunkHdr *hdr);
int GenRtmpType3MsgHdr(int chunkStreamId, RtmpChunkHdr *hdr);
}
