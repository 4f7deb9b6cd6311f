// The server's list of sessions, and finding the one that a player names.
#pragma once

#include "rtmpcast/server.h"

extern "C" {

// Exported; documented in rtmpcast/server.h.
RTMP_API int ValidateRtmpSessionHandle(RtmpServer *server, RtmpSession *session);
RTMP_API int IsSessionNameExists(RtmpServer *server, const char *name);
RTMP_API int ValidateRtmpStreamName(RtmpClient *client, uint32_t nameLength, const char *name,
                                    RtmpSession **session);
RTMP_API int IsAnyClientConnected(RtmpSession *session);

// Exported; documented in rtmpcast/publish.h.
RTMP_API int AddClientInSession(RtmpSession *session, RtmpClient *client);

// The caller holds LiveSessionListLock.
void LinkSession(RtmpServer *server, RtmpSession *session);
void UnlinkSession(RtmpServer *server, RtmpSession *session);

// LockSessionListFor takes LiveSessionListLock on behalf of a client's serve thread. It gives up with -1
// when RtmpSessionDestroy, which holds the lock, is waiting for this very thread.
RTMP_STATUS int LockSessionListFor(RtmpClient *client);

// JoinStream looks up the session that `name` names and adds the client to it unless the client has one,
// in one step, so that the session cannot go in between. RTMP_PLAYERS_STREAM_NAME: also the one that is named
// by what stands in front of a "?", and behind "mp4:" or "flv:". 0; JOIN_NOT_FOUND: no such session, it has
// no media, or the server is being destroyed (steady road); JOIN_FAILED: it was found and the client could
// not be added.
enum { JOIN_NOT_FOUND = -1, JOIN_FAILED = -2 };
RTMP_STATUS int JoinStream(RtmpClient *client, const char *name);

// IsReadySession tells whether a session that may have been destroyed has its media. JOIN_NOT_FOUND: it is no
// session of the server.
RTMP_STATUS int IsReadySession(RtmpServer *server, const RtmpSession *session);

// JoinGiven adds the client to a session that may have been destroyed meanwhile, in the same way. 0;
// JOIN_NOT_FOUND, also when the server is being destroyed; JOIN_FAILED, also when the client is told to leave
// while it waits (neither is logged).
RTMP_STATUS int JoinGiven(RtmpClient *client, RtmpSession *session);
}
