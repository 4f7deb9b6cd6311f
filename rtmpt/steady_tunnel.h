// The second port on the steady road: its connections end, and are counted.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AcceptTunnelsSteadily goes on for the accept thread of RTMPT, for good. It returns when the listening
// socket is shut down. `fd`: a connection that has been accepted already; -1: none.
void AcceptTunnelsSteadily(RtmpServer *server, int fd);
}
