// The AMF0 body of a command (RTMP 1.0, 7.2).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// CmdMsgPayload: what a command carries. Zero stands for "not given".
typedef struct CmdMsgPayload {
    const char *Command;
    double TransactionId;
    const char *FmsVer; // with Capabilities and Mode: the properties object, in place of a null
    double Capabilities;
    double Mode;
    uint32_t StreamId; // a number behind the null
    const char *Level; // with Code and Description: the information object
    const char *Code;
    const char *Description;
} CmdMsgPayload;

// WriteCmdMsgPayload encodes a command into the message, which owns the bytes. The information object also
// names the client's stream, in the description and in a member of its own, and the client's id, which is
// made when it is first needed. A transaction id that is negative or not a number is refused.
// 0; -1 (logged) the message has no payload.
RTMP_STATUS int WriteCmdMsgPayload(RtmpClient *client, RtmpSendPkt *pkt, const CmdMsgPayload *payload);
}
