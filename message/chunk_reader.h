// The incoming chunk stream (RTMP 1.0, 5.3): ReadRtmpMessage of publish.h, and the packet it makes.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client);

// CreateNewRtmpPkt makes a packet from the first chunk of a message: `bytes` of header and payload in
// `chunk`. Null: no memory, or a header that inherits from a chunk stream with nothing stored (logged).
RtmpRecvPkt *CreateNewRtmpPkt(RtmpClient *client, uint32_t bytes, const uint8_t *chunk,
                              uint32_t messageLength, uint32_t headerType, uint32_t basicHeaderForm,
                              uint32_t chunkStreamId);
}
