#pragma once

#include "rtmpcast/server.h"

extern "C" {

// The server record outlives RtmpServerDestroy for as long as a serve thread needs it.
void HoldServer(RtmpServer *server);
void ReleaseServer(RtmpServer *server); // the last one frees the record
}
