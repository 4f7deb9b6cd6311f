#include "steady/shared_header.h"

#include "net/byte_writer.h"

namespace {

constexpr uint8_t kType0 = 0x00;
constexpr uint8_t kType1 = 0x40;

uint8_t MsgTypeOf(enum SteadyKind kind)
{
    return kind == STEADY_VIDEO ? RTMP_TYPE_VIDEO : RTMP_TYPE_AUDIO;
}

uint32_t TimeField(uint64_t milliseconds)
{
    return static_cast<uint32_t>(milliseconds < kMostDelta ? milliseconds : kMostDelta);
}

} // namespace

// fmt:2 chunk stream:6  delta:24  length:24  type:8
void PutSharedHeader(uint8_t *bytes, enum SteadyKind kind, uint32_t bodyLength, uint64_t delta)
{
    ByteWriter out = WriterOver(bytes, kSharedHeaderSize);
    PutU8(&out, kType1 | kSteadyChunkStream[kind]);
    PutU24Be(&out, TimeField(delta));
    PutU24Be(&out, bodyLength);
    PutU8(&out, MsgTypeOf(kind));
}

// fmt:2 chunk stream:6  timestamp:24  length:24  type:8  stream id:32 (little-endian)
void PutFirstHeader(uint8_t *bytes, enum SteadyKind kind, uint32_t bodyLength, uint64_t time,
                    uint32_t msgStreamId)
{
    ByteWriter out = WriterOver(bytes, kOwnHeaderMost);
    PutU8(&out, kType0 | kSteadyChunkStream[kind]);
    PutU24Be(&out, TimeField(time));
    PutU24Be(&out, bodyLength);
    PutU8(&out, MsgTypeOf(kind));
    PutU32Le(&out, msgStreamId);
}
