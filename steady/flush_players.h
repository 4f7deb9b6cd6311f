// A frame's way out to all players.
#pragma once

#include "steady/slowest.h"

extern "C" {

// FlushPlayers sends what is due to every player of the stream that is not waiting for room, and lets the
// ring go of what nobody needs. `slowest`: how far the slowest is behind now; null: nobody asks. One thread
// at a time.
void FlushPlayers(SteadyStream *stream, SteadySlowest *slowest);
}
