// The keeper: a thread of the server that goes on writing where a socket was full, and ends connections whose
// time is up. It never waits for a peer.
#pragma once

#include "steady/records.h"

extern "C" {

// StartKeeper starts the thread. 0; RTMP_ERR_THREAD_CREATE (also when a descriptor could not be had).
RTMP_STATUS int StartKeeper(SteadyService *service);
void StopKeeper(SteadyService *service);

// EndLines ends every connection that the library has accepted, all at once, admits nobody any more, and
// returns when all have left and their descriptors are closed.
void EndLines(SteadyService *service);
}
