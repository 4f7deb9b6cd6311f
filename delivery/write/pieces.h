// A message's bytes as the pieces that go out: header, then body, cut at chunk boundaries.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

typedef struct RtmpPiece {
    const uint8_t *Address;
    uint32_t Length;
    uint8_t StartsChunk; // a continuation header (RTMP 1.0, 5.3.1.2, type 3) goes in front
} RtmpPiece;

// A cutter lays the parts of one message body behind each other and cuts them into chunks. Piece 0 is left
// for the chunk header.
typedef struct PieceCutter {
    RtmpPiece *Pieces;
    uint32_t Count;
    uint32_t ChunkSize;
    uint32_t RoomInChunk;
} PieceCutter;

// OutgoingChunkSize returns the chunk size of a server's connections, at least 1.
uint32_t OutgoingChunkSize(const RtmpServer *server);

// PiecesFor returns how many pieces, header included, a body of `parts` parts and `total` bytes can need.
uint64_t PiecesFor(uint64_t total, uint32_t chunkSize, uint32_t parts);

PieceCutter CutInto(RtmpPiece *pieces, uint32_t chunkSize);
void CutPart(PieceCutter *cutter, const uint8_t *part, uint64_t length);
}
