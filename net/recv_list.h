// A client's receive list: at most one packet per chunk stream, the one being assembled or the last one
// completed, from which later headers inherit. The public half is in publish.h.
#pragma once

#include "rtmpcast/publish.h"

extern "C" {

// MsgLength and MsgTypeId of the packet stored for a chunk stream; -1 when there is none.
int32_t GetPayloadHdrSize(RtmpClient *client, int chunkStreamId);
int32_t GetMsgTypeId(RtmpClient *client, int chunkStreamId);
}
