// One message to one client: SendMsgToClient of publish.h, and the form that replies use.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int SendMsgToClient(RtmpClient *client, RtmpSendPkt *message, uint32_t kind);

// SendOrForget does what SendMsgToClient does, and leaves no reference behind when the message could not be
// sent: the next one on its chunk stream starts with a full header.
RTMP_STATUS int SendOrForget(RtmpClient *client, RtmpSendPkt *message, uint32_t kind);
}
