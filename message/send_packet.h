// Making the record of an outgoing message. `who` is the generator on whose behalf a failure is logged.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// NewSendPkt makes a message of a kind and an RTMP type, stamped with the age of the client record. Null: no
// memory (logged).
RtmpSendPkt *NewSendPkt(RtmpClient *client, uint32_t msgKind, uint32_t msgTypeId, const char *who);

// FinishSendPkt measures the delta of a message that is complete but for it. It returns the message, or frees
// it and returns null when the send list could not be locked (logged).
RtmpSendPkt *FinishSendPkt(RtmpClient *client, RtmpSendPkt *pkt);

// CopyPayload gives the message a copy of `length` bytes. -1: no memory (logged).
RTMP_STATUS int CopyPayload(RtmpClient *client, RtmpSendPkt *pkt, const uint8_t *bytes, uint32_t length,
                            const char *who);

// EncodePayload gives the message the AMF0 encoding of a list. -1 (logged).
RTMP_STATUS int EncodePayload(RtmpClient *client, RtmpSendPkt *pkt, AmfObject *values, const char *who);
}
