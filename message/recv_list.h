// A client's receive list: at most one packet per chunk stream, the one being assembled or the last one
// completed, from which later headers inherit. The public half is in publish.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int AddRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);
RTMP_API int RemoveRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);
RTMP_API RtmpRecvPkt *GetRecvPktFromList(RtmpClient *client, int chunkStreamId);
RTMP_API int IsRecvStrmPktExists(RtmpClient *client, RtmpRecvPkt *pkt);

// IsKnownRecvPktStored is IsRecvStrmPktExists without a walk, for a packet that is known to be there.
RTMP_STATUS int IsKnownRecvPktStored(RtmpClient *client, const RtmpRecvPkt *pkt);

// MsgLength and MsgTypeId of the packet stored for a chunk stream; -1 when there is none.
int32_t GetPayloadHdrSize(RtmpClient *client, int chunkStreamId);
int32_t GetMsgTypeId(RtmpClient *client, int chunkStreamId);

// AbandonMessage drops the message that is being assembled on a chunk stream, if there is one. Its header
// stays for those that inherit from it, as that of a complete message does. 0; -1: the list's lock failed
// (logged).
RTMP_STATUS int AbandonMessage(RtmpClient *client, uint32_t chunkStreamId);

// FreeRecvPkts frees all packets of a client that nobody else knows any more, without the list's lock.
void FreeRecvPkts(RtmpClient *client);

// The receive list's lock, with the log line of a failure under the caller's name.
RTMP_STATUS int LockRecvList(RtmpClient *client, const char *who);
RTMP_STATUS int UnlockRecvList(RtmpClient *client, const char *who);
}
