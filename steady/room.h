// Waiting for room in sockets that were full, on behalf of the keeper.
#pragma once

#include "steady/records.h"

extern "C" {

// WatchLine and UnwatchLine: the line is, or is no longer, the keeper's. The caller holds SteadyService.Lock;
// after UnwatchLine the keeper does not touch the line again. -1: not logged.
RTMP_STATUS int WatchLine(SteadyLine *line);
void UnwatchLine(SteadyLine *line);

// AwaitRoom has the keeper go on as soon as the socket takes more. The caller holds the client's WriteLock.
void AwaitRoom(SteadyLine *line);

// WakeKeeper makes the keeper look at its lines.
void WakeKeeper(const SteadyService *service);
}
