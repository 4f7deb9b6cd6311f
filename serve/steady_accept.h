// The accept threads of the steady road.
#pragma once

#include "steady/records.h"

extern "C" {

// AcceptPlayersSteadily goes on for the accept thread of RTMP, for good. It returns when the listening socket
// is shut down. `fd`: a connection that has been accepted already; -1: none.
void AcceptPlayersSteadily(RtmpServer *server, int fd);

// AcceptTlsPlayersThread is the body of the accept thread of RTMP over TLS; its argument is the
// SteadyService.
void *AcceptTlsPlayersThread(void *argument);
}
