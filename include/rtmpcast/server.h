/*
 * Servers and sessions: creating, finding and destroying them.
 */
#ifndef RTMPCAST_SERVER_H
#define RTMPCAST_SERVER_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * RtmpServerCreate opens the listeners of a new server and starts one accept thread for each.
 *
 * @param logger         receives every log line until RtmpServerDestroy has returned; borrowed that long.
 *                       Null: lines go to standard output behind "RTMPWriter: "
 * @param interfaceName  "ANY" or "any": all addresses; otherwise a network interface such as "eth0"
 * @param rtmpPort       TCP port for RTMP; 0: no RTMP listener
 * @param rtmptPort      TCP port for RTMPT; 0: no RTMPT listener. Connections are accepted and kept, no
 *                       tunnel traffic is served
 * @param dscp           differentiated services code point of outgoing packets, 0 to 63 (RFC 2474)
 * @param chunkSize      bytes per outgoing chunk, announced to every player; below 1: 4096
 * @param err            may be null; left alone on success, else receives
 *                       RTMP_ERR_INVALID_ARGUMENT (no interface name), RTMP_ERR_IP_ADDRESS,
 *                       RTMP_ERR_MEMORY, RTMP_ERR_LOCK_INIT, RTMP_ERR_SOCKET, RTMP_ERR_BIND,
 *                       RTMP_ERR_LISTEN or RTMP_ERR_THREAD_CREATE
 * @return the server, ended with RtmpServerDestroy; null on failure, with everything undone
 *
 * Any thread. Both ports may be 0: such a server holds sessions and serves nobody.
 */
RTMP_API RtmpServer *RtmpServerCreate(RtmpLogger *logger, const char *interfaceName, uint16_t rtmpPort,
                                      uint16_t rtmptPort, uint8_t dscp, int32_t chunkSize, int *err);

/**
 * RtmpServerDestroy closes the listeners, destroys every session (see RtmpSessionDestroy) and frees the
 * server. The server and its sessions must not be used afterwards.
 *
 * The logger is let go before the sessions are destroyed: their lines appear on standard output behind
 * "RTMPWriter: ". Once the call has returned, the host's logger is never called again. Connections that
 * never joined a session live on until their peers leave; what they need outlives this call.
 *
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null); RTMP_ERR_THREAD_JOIN (an accept thread could not be
 *         joined: nothing was freed); RTMP_ERR_LOCK_DESTROY (not freed)
 *
 * Any thread but the library's own; not from within a host function that the library calls. The host must
 * have a SIGUSR1 handler that returns, installed without SA_RESTART: the signal ends blocked reads.
 */
RTMP_API int RtmpServerDestroy(RtmpServer *server);

/**
 * RtmpSessionCreate adds a live stream to the server. Players may find it once RtmpAddMediaInfo succeeded.
 *
 * @param name  what players name in "play"; exact and case-sensitive; copied
 * @param err   may be null; left alone on success, else receives RTMP_ERR_INVALID_ARGUMENT (null server or
 *              name), RTMP_ERR_SESSION_EXISTS, RTMP_ERR_MEMORY, RTMP_ERR_LOCK_INIT, RTMP_ERR_LOCK or
 *              RTMP_ERR_UNLOCK
 * @return the session, owned by the server, ended with RtmpSessionDestroy; null on failure
 *
 * Any thread. Two threads that create the same name at once may both succeed: create from one thread.
 */
RTMP_API RtmpSession *RtmpSessionCreate(RtmpServer *server, const char *name, int *err);

/**
 * RtmpSessionDestroy ends the serve threads of all clients of the session, its caption generator and its
 * sender, and frees it. It waits until every client has left; sockets of players stay open (their peers
 * see no more data) until the process ends.
 *
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null); RTMP_ERR_LOCK, RTMP_ERR_UNLOCK, RTMP_ERR_THREAD_JOIN (the
 *         session still exists); RTMP_ERR_LOCK_DESTROY (the session left the list and is not freed)
 *
 * Any thread that is not one of the library's, with no RtmpSendData on this session under way. Needs the
 * SIGUSR1 handler that RtmpServerDestroy describes. Holds the server's session list meanwhile.
 */
RTMP_API int RtmpSessionDestroy(RtmpSession *session);

/**
 * ValidateRtmpSessionHandle tells whether `session` is one of the server's sessions.
 *
 * @return 0 it is; -1 it is not, or `server` is null. Nothing is logged.
 *
 * Takes no lock: call it where no session is created or destroyed meanwhile.
 */
RTMP_API int ValidateRtmpSessionHandle(RtmpServer *server, RtmpSession *session);

/**
 * IsSessionNameExists tells whether a session of exactly this name exists.
 *
 * @return 0 it does; -1 it does not, or an argument is null. Nothing is logged.
 *
 * Takes no lock: call it where no session is created or destroyed meanwhile.
 */
RTMP_API int IsSessionNameExists(RtmpServer *server, const char *name);

/**
 * ValidateRtmpStreamName finds the session that a client asks to play.
 *
 * @param nameLength  not used; the name ends at its terminator
 * @param session     receives the session; null when the session found has no media yet; untouched when
 *                    there is none of this name
 * @return 0 found and ready to play; -1 otherwise, or a lock failed
 *
 * Takes the server's session list lock. The session may be destroyed as soon as the call has returned.
 */
RTMP_API int ValidateRtmpStreamName(RtmpClient *client, uint32_t nameLength, const char *name,
                                    RtmpSession **session);

/** IsAnyClientConnected returns 0 when the session has at least one client, else -1. No lock, no log. */
RTMP_API int IsAnyClientConnected(RtmpSession *session);

#ifdef __cplusplus
}
#endif

#endif
