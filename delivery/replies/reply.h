#pragma once

#include "net/log_line.h"
#include "rtmpcast/types.h"

extern "C" {

// What is logged when a reply cannot be built or sent.
typedef struct ReplyFailures {
    LogText NotGenerated;
    LogText NotSent;
} ReplyFailures;

extern const ReplyFailures kResponseFailures; // "... RTMP response message", "... response message to client"

// SendReply builds the message `reply` and sends it as `sendKind`; `who` is the procedure whose step it is.
// A message that could not be sent is no reference for later ones. 0; -1 (logged).
RTMP_STATUS int SendReply(RtmpClient *client, RtmpRecvPkt *request, uint32_t reply, uint32_t sendKind,
                          const ReplyFailures *failures, const char *who);
}
