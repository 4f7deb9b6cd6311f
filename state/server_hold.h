// The server record outlives RtmpServerDestroy for as long as a serve thread needs it.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

void HoldServer(RtmpServer *server);

// ReleaseServer gives a hold back; the last one ends the session list lock and frees the record. 0;
// RTMP_ERR_LOCK_DESTROY: the record was not freed (logged).
int ReleaseServer(RtmpServer *server);
}
