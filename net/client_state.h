// A client's state and socket, as threads that share the record read and change them.
#pragma once

#include "net/atomic.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/types.h"

inline uint32_t ClientStateOf(const RtmpClient *client)
{
    return LoadShared(&client->State);
}

inline void SetClientState(RtmpClient *client, uint32_t state)
{
    StoreShared(&client->State, state);
}

// HoldForWriting takes the client's WriteLock: one message at a time reaches the socket. Whoever holds it may
// wait for the peer, so a cancel ends the thread while it waits here. Below it only the packet lists are
// locked.
inline RtmpMutex *HoldForWriting(RtmpClient *client)
{
    (void)RtmpMutexLockOrCancel(&client->WriteLock); // made with the record, and never destroyed: cannot fail
    return &client->WriteLock;
}

// SocketInUse returns the client's descriptor, or -1 once CloseClientSocket has closed it: the number in the
// record may by then be somebody else's.
inline int SocketInUse(const RtmpClient *client)
{
    return LoadShared(&client->SocketClosed) != 0 ? -1 : client->Socket;
}

// MarkSocketClosed has everybody know it. The caller holds the client's WriteLock; MemberLock keeps others
// from shutting a socket down whose number may be somebody else's by then.
inline void MarkSocketClosed(RtmpClient *client)
{
    RtmpSession *session = client->Session;
    UNLOCK_AT_EXIT RtmpMutex *held = session != nullptr ? HoldLeaf(&session->MemberLock) : nullptr;
    StoreShared(&client->SocketClosed, uint8_t{1});
}

// TlsInUse returns the client's TLS handle, or null once CloseClientSocket has closed the socket: the handle
// holds the same number.
inline void *TlsInUse(const RtmpClient *client)
{
    return LoadShared(&client->SocketClosed) != 0 ? nullptr : client->Tls;
}

// IsToldToLeave: somebody has closed the client or waits for its thread. Whatever it reads from now on fails
// as an interrupted read does, also when the peer never stops sending.
inline bool IsToldToLeave(const RtmpClient *client)
{
    return LoadShared(&client->ToldToLeave) != 0;
}
