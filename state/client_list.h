// A session's clients: the chain that frames travel along, and the exact membership behind it.
//
// The chain (NextClient, PrevClient, ClientListHead, ClientListTail) keeps a defect, which is required:
// when the first of three or more clients leaves, the tail moves to the second, and the next newcomer is
// linked there, so that those behind it fall out of the chain. They count, get no frames, and leave without
// harm to anybody. The membership (NextMember, PrevMember) always holds every client of the session.
//
// MemberLock guards both, below every other lock but a client's own.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

enum ChainPlace { CHAIN_MIDDLE, CHAIN_LAST, CHAIN_FIRST, CHAIN_ONLY };

// LinkClient appends a client and returns the new ClientCount.
int32_t LinkClient(RtmpSession *session, RtmpClient *client);

// LockClientsOf takes the ClientListLock of the client's session. A client without a session gets no frames,
// and there is nothing to take: `lock` is then null, else what UnlockClients gives back. 0; -1 (not logged).
RTMP_STATUS int LockClientsOf(const RtmpClient *client, RtmpMutex **lock);

// UnlockClients gives back what LockClientsOf took, and makes `lock` null. 0; -1 (not logged).
RTMP_STATUS int UnlockClients(RtmpMutex **lock);

// PlaceInChain tells how a client is about to leave.
enum ChainPlace PlaceInChain(RtmpSession *session, const RtmpClient *client);

// UnlinkClient takes a client out of chain and membership and returns the new ClientCount. The client's
// Session is null afterwards.
int32_t UnlinkClient(RtmpSession *session, RtmpClient *client);

// FirstMember returns the client that RtmpSessionDestroy ends next: the head of the chain, or one that fell
// out of it; null when there is none.
RtmpClient *FirstMember(RtmpSession *session);
}
