#include "delivery/write/line_writer.h"

#include "net/byte_writer.h"
#include "net/log.h"
#include "steady/line.h"

namespace {

uint64_t LengthOfPieces(const RtmpPiece *pieces, uint32_t count, uint32_t continuationLength)
{
    uint64_t length = 0;
    for (uint32_t i = 0; i < count; i++) {
        length += pieces[i].Length + (pieces[i].StartsChunk != 0 ? continuationLength : 0);
    }
    return length;
}

} // namespace

int PutOnLine(SteadyLine *line, const RtmpPiece *pieces, uint32_t count, const uint8_t *continuation,
              uint32_t continuationLength)
{
    const uint64_t length = LengthOfPieces(pieces, count, continuationLength);
    SteadyReply *reply = length <= UINT32_MAX ? NewReply(static_cast<uint32_t>(length)) : nullptr;
    if (reply == nullptr) {
        RtmpLogPrint(LoggerOf(line->Client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to the message\n", __func__);
        return -1;
    }
    ByteWriter out = WriterOver(reply->Bytes, reply->Length);
    for (uint32_t i = 0; i < count; i++) {
        if (pieces[i].StartsChunk != 0) {
            PutBytes(&out, continuation, continuationLength);
        }
        PutBytes(&out, pieces[i].Address, pieces[i].Length);
    }
    return QueueReply(line, reply);
}
