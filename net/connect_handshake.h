// The handshake of RTMP 1.0, 5.2, from the side that connects: plain, or signed as Flash players do.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// ConnectHandshake runs it on a new connection. `sign` 0: C1 carries no digest, and C2 is S1. -1: the peer
// is no RTMP server, or the connection ended (logged).
RTMP_STATUS int ConnectHandshake(RtmpClient *client, int sign);
}
