// The well-formed bodies of RTMP_PLAYERS_DESCRIPTION, beside the exact ones of media/flv_tag.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// They build PlayerMetaData and PlayerAvccBox into the session's CodecInfo, whose exact bodies are there; on
// a server without the flag they do nothing. -1 (logged): no memory.
RTMP_STATUS int GeneratePlayerMetadata(RtmpSession *session);
RTMP_STATUS int CreatePlayerAvccBox(RtmpSession *session);
}
