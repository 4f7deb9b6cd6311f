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
 * Any thread; takes no lock and waits for nobody. The accept threads, and the threads of the connections,
 * inherit the signal mask of the calling thread. Both ports may be 0: such a server holds sessions and serves
 * nobody.
 */
RTMP_API RtmpServer *RtmpServerCreate(RtmpLogger *logger, const char *interfaceName, uint16_t rtmpPort,
                                      uint16_t rtmptPort, uint8_t dscp, int32_t chunkSize, int *err);

/**
 * RtmpServerDestroy closes the listeners, destroys every session (see RtmpSessionDestroy) and frees the
 * server. The server and its sessions must not be used afterwards.
 *
 * The logger is set aside before the sessions are destroyed: their lines appear on standard output behind
 * "RTMPWriter: ". Once the call has returned, the host's logger is never called again. Connections that
 * never joined a session live on until their peers leave; what they need outlives this call. A frame that
 * another thread is sending is ended, as RtmpSessionDestroy says.
 *
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null); RTMP_ERR_THREAD_JOIN (an accept thread could not be
 *         joined: no session was destroyed, and the call may be repeated); RTMP_ERR_LOCK_DESTROY (the
 *         sessions are gone, the record is not freed). A session whose own lock could not be released or
 *         destroyed in the end is logged, and its memory stays allocated
 *
 * Any thread but the library's own; not from within a host function that the library calls, and with no
 * other call on this server or its sessions under way but RtmpSendData. Takes the locks of
 * RtmpSessionDestroy, for one session after the other, and repeats it for a session that could not be
 * destroyed. Waits for the accept threads, for a host's log function that is being called, for RtmpSendData,
 * and for every client of a session. The host must have a SIGUSR1 handler that returns, installed without
 * SA_RESTART: the signal ends writes to players that take nothing. Where it does not, because the handler
 * lets calls go on or the signal is blocked, such connections are shut down after a second.
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
 * Any thread, also while other sessions are created and destroyed. Takes the server's session list lock to
 * link the session. Calls cc_gen_init and KelvoraSyslog with no lock held. The name is looked for before the
 * lock is taken, so that two threads that create the same name at once may both succeed: create from one
 * thread.
 */
RTMP_API RtmpSession *RtmpSessionCreate(RtmpServer *server, const char *name, int *err);

/**
 * RtmpSessionDestroy ends the serve threads of all clients of the session, its caption generator and its
 * sender, and frees it. Sockets of players stay open (their peers see no more data) until the process ends.
 *
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null); RTMP_ERR_LOCK (a list lock could not be taken) and
 *         RTMP_ERR_THREAD_JOIN (also on the thread that serves one of the session's own clients): the session
 *         still exists, with those clients that had not left, and frames flow on;
 *         RTMP_ERR_UNLOCK: the client list's lock could not be released and the session still exists, or the
 *         session list's could not, and the session has left the list and is not freed;
 *         RTMP_ERR_LOCK_DESTROY: the session has left the list and is not freed
 *
 * A thread that is none of the library's own; with no setting of this session under way. An RtmpSendData of
 * this session that another thread is in is ended, in the middle of a write if need be, and returns first;
 * one that begins meanwhile returns RTMP_ERR_NO_CLIENT; none may begin afterwards. Needs the SIGUSR1 handler
 * that RtmpServerDestroy describes. Holds the server's session list lock until the session is gone, and takes
 * the client list lock for moments: "play", session creation and the senders of other sessions wait
 * meanwhile. Waits for every client to leave, without limit: their reads fail at once, and each is signalled
 * every 10 ms, after half a second all are. A client that a host made leaves by DestroyRtmpClient. Calls
 * publishChangeState and cc_gen_close.
 */
RTMP_API int RtmpSessionDestroy(RtmpSession *session);

/**
 * ValidateRtmpSessionHandle tells whether `session` is one of the server's sessions.
 *
 * @return 0 it is; -1 it is not, or `server` is null. Nothing is logged.
 *
 * Any thread, also while sessions are created and destroyed: takes a lock of its own for a moment.
 */
RTMP_API int ValidateRtmpSessionHandle(RtmpServer *server, RtmpSession *session);

/**
 * IsSessionNameExists tells whether a session of exactly this name exists.
 *
 * @return 0 it does; -1 it does not, or an argument is null. Nothing is logged.
 *
 * Any thread, also while sessions are created and destroyed: takes a lock of its own for a moment.
 */
RTMP_API int IsSessionNameExists(RtmpServer *server, const char *name);

/**
 * ValidateRtmpStreamName finds the session that a client asks to play.
 *
 * @param client      tells the server; not null
 * @param nameLength  not used; the name ends at its terminator
 * @param name        not null
 * @param session     receives the session; null when the session found has no media yet; untouched when
 *                    there is none of this name
 * @return 0 found and ready to play; -1 the server has no session, or a lock failed (both logged), or none
 *         of this name is ready (not logged)
 *
 * Any thread that holds no lock of the library; takes the server's session list lock, and waits for it as
 * long as a sender or RtmpSessionDestroy holds it. The session may be destroyed as soon as the call has
 * returned.
 */
RTMP_API int ValidateRtmpStreamName(RtmpClient *client, uint32_t nameLength, const char *name,
                                    RtmpSession **session);

/**
 * IsAnyClientConnected tells whether the session, which is not null, has clients, playing or not.
 *
 * @return 0 at least one; -1 none. Nothing is logged.
 *
 * Any thread, while the session exists; takes no lock, and does not block.
 */
RTMP_API int IsAnyClientConnected(RtmpSession *session);

#ifdef __cplusplus
}
#endif

#endif
