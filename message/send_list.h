// A client's send list: at most one message per chunk stream, the reference from which deltas and header
// types are derived. The public half is in publish.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// RtmpSendPkt.HdrType of a stored message that may not have reached the peer: nothing can be told from it.
enum { RTMP_HDR_TYPE_UNSENT = 0xFF };

// Exported; documented in rtmpcast/publish.h.
RTMP_API int AddSendPkt(RtmpClient *client, RtmpSendPkt *pkt);
RTMP_API int RemoveSendPkt(RtmpClient *client, RtmpSendPkt *pkt);
RTMP_API RtmpSendPkt *GetSendPktFromList(RtmpClient *client, int chunkStreamId);

// FreeSendPkt frees a message that is in no list, and its payload unless that is borrowed (kinds 49, 51,
// 52). Null is fine.
void FreeSendPkt(RtmpSendPkt *pkt);

// FreeSendPkts frees all messages of a client that nobody else knows any more, without the list's lock.
void FreeSendPkts(RtmpClient *client);

// ForgetPayload gives up the payload of a stored message, of which only the header fields are read again.
void ForgetPayload(RtmpSendPkt *pkt);

// StoredTimestamp finds the timestamp of the message stored for a chunk stream. 1 found, 0 none, -1 lock
// failed. Unlike GetSendPktFromList it hands out no pointer that another thread may free.
int StoredTimestamp(RtmpClient *client, uint32_t chunkStreamId, uint64_t *timestamp);
}
