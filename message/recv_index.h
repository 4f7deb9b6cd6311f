// A client's receive list by chunk stream id: finding a packet takes at most one step for each bit of the id,
// however many chunk streams a peer uses. Called with the list locked.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// FindInIndex returns the stored packet of a chunk stream, or null.
RtmpRecvPkt *FindInIndex(const RtmpClient *client, uint32_t chunkStreamId);

// AddToIndex enters a packet whose chunk stream has none; TakeFromIndex takes it out again.
void AddToIndex(RtmpClient *client, RtmpRecvPkt *pkt);
void TakeFromIndex(RtmpRecvPkt *pkt);
}
