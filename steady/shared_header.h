// Chunk headers of the steady road's messages (RTMP 1.0, 5.3.1). Pictures and sound have chunk streams of
// their own, which nothing else uses: what a command changes elsewhere changes nothing here. Times never need
// the extended field: differences are kept below it, and a player's timeline begins at 0.
#pragma once

#include "steady/records.h"

// Below 32, which some relays allow at most, and with basic headers of one byte.
constexpr uint8_t kSteadyChunkStream[STEADY_KINDS] = {28, 29};
constexpr uint64_t kMostDelta = 0xFFFFFE;

// A continuation header in front of each further chunk of a message: type 3, one byte.
constexpr uint32_t kContinuationSize = 1;
inline uint8_t ContinuationOf(enum SteadyKind kind)
{
    return static_cast<uint8_t>(0xC0 | kSteadyChunkStream[kind]);
}

extern "C" {

// PutSharedHeader writes a type 1 header for a message of `bodyLength` bytes, `delta` ms behind the one
// before it. kSharedHeaderSize bytes.
void PutSharedHeader(uint8_t *bytes, enum SteadyKind kind, uint32_t bodyLength, uint64_t delta);

// PutFirstHeader writes a type 0 header at `time`. kOwnHeaderMost bytes.
void PutFirstHeader(uint8_t *bytes, enum SteadyKind kind, uint32_t bodyLength, uint64_t time,
                    uint32_t msgStreamId);
}
