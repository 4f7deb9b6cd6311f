// The memory of a received message: its payload, which grows with what arrives, and its decoded command.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// NewPayload gives a packet whose MsgLength is set room for its first `bytes` bytes, zero-filled. -1: no
// memory.
RTMP_STATUS int NewPayload(RtmpRecvPkt *pkt, uint32_t bytes);

// PayloadRoom returns how many bytes PayloadData has room for. A packet that a host made itself has room for
// the whole message.
uint32_t PayloadRoom(const RtmpRecvPkt *pkt);

// GrowPayload makes room for `bytes` bytes, MsgLength at most; what is new reads as zero. PayloadData may
// move. -1: no memory, and the packet is as it was.
RTMP_STATUS int GrowPayload(RtmpRecvPkt *pkt, uint32_t bytes);

// FreeDecodedCommand frees the values that were decoded from a command; nothing to do is fine. 0; -1: they
// could not be freed.
RTMP_STATUS int FreeDecodedCommand(RtmpServer *server, RtmpRecvPkt *pkt);

// FreeRecvPkt frees a packet that is in no list (AddRecvPkt did not store it), its decoded command included.
// -1: the command could not be freed, and neither was the packet (logged).
RTMP_STATUS int FreeRecvPkt(RtmpServer *server, RtmpRecvPkt *pkt);
}
