#include "message/receive_limits.h"

#include "message/recv_index.h"
#include "steady/line_end.h"

#include <stdlib.h>

namespace {

// LetGoOf frees the payload of a message that has been handled: headers inherit fields alone. Values that
// could not be freed may still point into it.
void LetGoOf(RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId == RTMP_TYPE_AMF0_COMMAND && pkt->Result.Amf != nullptr) {
        return;
    }
    free(pkt->PayloadData);
    pkt->PayloadData = nullptr;
}

// BytesBegun counts the messages that are not complete, and lets go of what the others hold.
uint64_t BytesBegun(RtmpClient *client)
{
    uint64_t bytes = 0;
    for (RtmpRecvPkt *pkt = client->RecvPktHead; pkt != nullptr; pkt = pkt->Next) {
        if (pkt->Complete == 0) {
            bytes += pkt->MsgLength;
        } else {
            LetGoOf(pkt);
        }
    }
    return bytes;
}

} // namespace

bool MayBegin(RtmpClient *client, uint32_t chunkStreamId, uint32_t length)
{
    SteadyLine *line = client->Line;
    if (line == nullptr || line->OwnsSocket == 0) {
        return true;
    }
    const RtmpServiceLimits *limits = &line->Service->Limits;
    if (BytesBegun(client) + length > limits->AssemblyBytes) {
        EndLine(line, STEADY_END_ASSEMBLY);
        return false;
    }
    if (client->RecvPktCount >= limits->ChunkStreams && FindInIndex(client, chunkStreamId) == nullptr) {
        EndLine(line, STEADY_END_CHUNK_STREAMS);
        return false;
    }
    return true;
}
