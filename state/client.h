#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpClient *CreateNewRtmpClient(RtmpServer *server, uint32_t connType, int socket,
                                         const char *peerAddress, uint16_t peerPort, void *tls);
RTMP_API int DestroyRtmpClient(RtmpClient *client);

// Who ends a client's serve thread. Decided under the session's MemberLock.
enum RtmpThreadOwner {
    THREAD_OWNER_NOBODY = 0,
    THREAD_OWNER_ITSELF = 1,  // detached, on its way out
    THREAD_OWNER_SESSION = 2, // RtmpSessionDestroy signals it and joins it
    THREAD_OWNER_HOST = 3     // a publisher's: RtmpSessionDestroy signals it, and the host joins it
};

// FreeClientRecord frees a client that DestroyRtmpClient refused, or one of the steady road. The client is
// out of its session first, and nothing is logged.
void FreeClientRecord(RtmpClient *client);

// CloseClientSocket closes the connection so that the peer sees it at once; no later read or write uses the
// number again. On the steady road the peer is sent its answers first, by the client's thread.
void CloseClientSocket(RtmpClient *client);
}
