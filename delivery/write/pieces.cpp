#include "delivery/write/pieces.h"

#include "net/atomic.h"

uint32_t OutgoingChunkSize(const RtmpServer *server)
{
    constexpr uint32_t protocolDefault = 128; // RTMP 1.0, 5.4.1
    const uint32_t size = LoadShared(&server->ChunkSize);
    return size > 0 ? size : protocolDefault; // a record that a host made itself may hold none
}

uint64_t PiecesFor(uint64_t total, uint32_t chunkSize, uint32_t parts)
{
    return 1 + parts + total / chunkSize + 1;
}

PieceCutter CutInto(RtmpPiece *pieces, uint32_t chunkSize)
{
    return {pieces, 1, chunkSize, chunkSize};
}

void CutPart(PieceCutter *cutter, const uint8_t *part, uint64_t length)
{
    while (length > 0) {
        const uint8_t startsChunk = cutter->RoomInChunk == 0 ? 1 : 0;
        if (startsChunk != 0) {
            cutter->RoomInChunk = cutter->ChunkSize;
        }
        const uint32_t size =
            length < cutter->RoomInChunk ? static_cast<uint32_t>(length) : cutter->RoomInChunk;
        cutter->Pieces[cutter->Count++] = {part, size, startsChunk};
        cutter->RoomInChunk -= size;
        part += size;
        length -= size;
    }
}
