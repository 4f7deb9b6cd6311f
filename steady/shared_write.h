// One write for all: what has come into the ring is laid out once, and sent as it is to every player that is
// up to date. References to it are taken once, and not per player.
#pragma once

#include "steady/records.h"

#include <sys/uio.h>

extern "C" {

constexpr uint32_t kMostShared = 8; // sound that is due and the picture behind it, and a turn or two more

typedef struct SharedWrite {
    FinishedMessage *Messages[kMostShared]; // referenced
    struct iovec Vectors[kMostShared];      // their bytes, shared headers included
    uint32_t Count;
    uint64_t Bytes;
    uint64_t PreviousOfKind[STEADY_KINDS]; // what the first of them count from; kNoMessage: there is none
    uint64_t Time;                         // ms: now
    uint8_t IsForAll;                      // 0: nothing has come, or everybody needs a header of its own
} SharedWrite;

// BeginSharedWrite takes what has come into the ring since the one before; EndSharedWrite lets go of it. The
// caller holds PlayersLock.
void BeginSharedWrite(SteadyStream *stream, uint64_t now, SharedWrite *write);
void EndSharedWrite(SteadyStream *stream, SharedWrite *write);

// WriteShared sends it to the player, if it is due as it is. False: it is not, or not all of it is
// out, or more may be due: FlushLine goes on. The caller holds the client's WriteLock.
bool WriteShared(SteadyLine *line, const SharedWrite *write);
}
