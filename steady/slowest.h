// How far the slowest player of a session is behind, for whoever steers the encoder.
#pragma once

#include "steady/records.h"

extern "C" {

// A player counts while it makes progress: its lag is that of the moment in which it last took something, so
// that one that has stopped does not seem ever slower. One that has just begun counts when it has caught up
// with its beginning in the ring once, or has not done so in a while.
typedef struct SteadySlowest {
    uint32_t Counted;  // players
    uint32_t Pictures; // that the slowest of them is behind
    uint64_t Bytes;    // of the pictures that it has taken since the look before
} SteadySlowest;

// The ring at one moment.
typedef struct RingNow {
    uint64_t Milliseconds;
    uint64_t First;
    uint64_t Pictures;
} RingNow;

RingNow LookAtRing(SteadyStream *stream);

// LookAtLine takes a player that plays into account. The caller holds its WriteLock; one thread at a time.
void LookAtLine(SteadyLine *line, const RingNow *ring, SteadySlowest *slowest);
}
