#include "steady/flush_players.h"

#include "net/client_state.h"
#include "net/platform.h"
#include "net/scope.h"
#include "steady/line_flush.h"
#include "steady/message_ring.h"
#include "steady/shared_write.h"

namespace {

// Returns the number of the first message that the player needs; kNoMessage: none.
uint64_t FlushPlayer(SteadyLine *line, const SharedWrite *write, const RingNow *ring, SteadySlowest *slowest)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    if (line->WantsRoom == 0 && !WriteShared(line, write)) {
        FlushLine(line, write->Time);
    }
    if (ClientStateOf(line->Client) != CLIENT_STATE_PLAY_DONE) {
        return kNoMessage;
    }
    if (slowest != nullptr) {
        LookAtLine(line, ring, slowest);
    }
    return line->Place.Next;
}

uint64_t FlushEach(SteadyStream *stream, SteadySlowest *slowest)
{
    const RingNow ring = LookAtRing(stream);
    uint64_t needed = kNoMessage;
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    SharedWrite write;
    BeginSharedWrite(stream, ring.Milliseconds, &write);
    for (SteadyLine *line = stream->FirstPlayer; line != nullptr; line = line->NextPlayer) {
        const uint64_t next = FlushPlayer(line, &write, &ring, slowest);
        needed = next < needed ? next : needed;
    }
    EndSharedWrite(stream, &write);
    return needed;
}

} // namespace

void FlushPlayers(SteadyStream *stream, SteadySlowest *slowest)
{
    if (slowest != nullptr) {
        *slowest = {};
    }
    TrimRing(stream, FlushEach(stream, slowest));
}
