// A reply that is sent by the parser of a message itself, kept apart from the frames of the session.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

enum LockedReply {
    LOCKED_REPLY_SENT = 0,
    LOCKED_REPLY_NO_LOCK,
    LOCKED_REPLY_NOT_GENERATED,
    LOCKED_REPLY_NOT_SENT,
    LOCKED_REPLY_NO_UNLOCK
};

// ReplyUnderClientListLock generates a message of kind `kind` for `pkt` and sends it, under the
// ClientListLock of the client's session when it has one. The lock is released when the call returns; what
// failed is the caller's to log.
RTMP_STATUS LockedReply ReplyUnderClientListLock(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind);
}
