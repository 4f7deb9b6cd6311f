// The one way a line leaves the library.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API void RtmpLogPrint(RtmpLogger *logger, uint8_t level, const char *format, ...) RTMP_PRINTF(3, 4);

// LoggerOf returns what RtmpLogPrint is given for work on behalf of a server. It stays valid for as long as
// the server record does, also after RtmpServerDestroy has taken the host's logger away.
RtmpLogger *LoggerOf(RtmpServer *server);

// OpenLogGate makes `server` look its Logger up at the moment a line is written.
void OpenLogGate(RtmpServer *server);

// CloseLogGate sets Logger to null and returns when no thread is inside the host's log function any more.
void CloseLogGate(RtmpServer *server);
}
