/*
 * What the host provides: functions that the library calls and does not define. A host defines the ones
 * it has a use for and links librtmpcast_host_defaults.a behind the library for the rest.
 *
 * None of them may throw, call pthread_exit, or call back into the library beyond what its comment allows;
 * RtmpLogPrint always may be called. Where a lock is named, everybody who needs it waits until the function
 * returns. RtmpSessionDestroy and RtmpThreadedQueueReset wait for a function that the sender thread is in.
 *
 * A sender thread (sender mode 1) is ended by pthread_cancel, and a host may cancel threads of its own. None
 * is cancelled inside one of these functions: cancellation is switched off around each, and acts afterwards.
 */
#ifndef RTMPCAST_HOST_H
#define RTMPCAST_HOST_H

#include "rtmpcast/service.h"
#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * KelvoraSyslog writes a line to the host's system log.
 *
 * Called with the tag "RTMP" when a session was created (on the creating thread) and before every accept
 * (on the accept thread); on the steady road once for the first port and once for that of TLS. No locks are
 * held. A call that blocks keeps new players waiting, and RtmpServerDestroy, which joins the accept thread.
 * Default: syslog(3) at LOG_INFO, behind "<tag>: ".
 */
RTMP_HOST void KelvoraSyslog(const char *tag, const char *format, ...) RTMP_PRINTF(2, 3);

/**
 * cc_gen_init makes the closed-caption generator of a new session; its result is that session's handle,
 * which is not checked. Called by RtmpSessionCreate on its thread, no locks held. When the creation fails
 * afterwards, cc_gen_close is not called. Default: 0.
 */
RTMP_HOST uint64_t cc_gen_init(void);

/**
 * cc_gen_close ends a session's caption generator. Called once by RtmpSessionDestroy on its thread, with the
 * server's session list lock held, when all clients have left. In mode 1 of the sender its thread has ended.
 * Must not call the library. Default: nothing.
 */
RTMP_HOST void cc_gen_close(uint64_t handle);

/**
 * find_cc_insertion_place_in_h264_of_qbox finds where a caption SEI goes in a length-prefixed H.264 access
 * unit. Called for every video frame of a session with captions enabled, on the sending thread: the one that
 * calls RtmpSendData, or the sender thread in sender mode 1. The server's session list lock is held, by the
 * sender thread also a lock of its ring. Must not block (every player waits), call the library, or write to
 * `data`. On the steady road (RtmpServiceSettings): on the thread that calls RtmpSendData, no locks held,
 * also while nobody is connected.
 *
 * @param data        the whole frame, valid for the call
 * @param nalSizePos  receives the offset of the length field of the NAL unit that will hold the SEI. Only
 *                    increase_nal_size uses it
 * @return the offset in `data` at which the SEI goes, `length` at most; negative or above `length`: no
 *         captions for this frame. Default: -1.
 */
RTMP_HOST int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length,
                                                          int32_t *nalSizePos);

/**
 * get_sei_packet yields the next caption SEI of a generator. Called after a place was found, on the same
 * thread, under the same locks and rules.
 *
 * @param handle          what cc_gen_init returned for the session
 * @param sei             receives the bytes, which stay the host's and valid until the next call with this
 *                        handle. A caption pair is read from bytes 11 to 14
 * @param seiLen          receives their count; 0 or less: none. In caption mode 0 the frame is then
 *                        sent as it is; in mode 1 the pair reads as zeros
 * @param timestampDelta  milliseconds since the previous video frame; 0 for the first
 *
 * Default: no bytes.
 */
RTMP_HOST void get_sei_packet(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta);

/**
 * increase_nal_size adds `bytes` to the 4-byte big-endian NAL length at `frame` + `nalSizePos`. `frame` is
 * the library's copy of the frame's beginning, up to and including the SEI, and may be written only there;
 * `nalSizePos` is what find_cc_insertion_place_in_h264_of_qbox gave, unchecked. Called in caption mode 0 for
 * frames that get the SEI, on the same thread, under the same locks and rules. Default: nothing.
 */
RTMP_HOST void increase_nal_size(uint8_t *frame, int32_t nalSizePos, int32_t bytes);

/**
 * PublishGeneratePeriodicRTMPMsg builds the caption message of a publishing connection.
 *
 * Called on the sending thread with the server's session list lock and the session's client list lock held
 * (by the sender thread also a lock of its ring), for the first client of a session in caption mode 1, when
 * it plays; on the steady road (RtmpServiceSettings) with the client list lock alone. It may use
 * GenerateRtmpMsg and the AMF builders, must not take either lock (AddClientInSession, DestroyRtmpClient,
 * ValidateRtmpStreamName), and must not block: every player waits.
 *
 * @param kind            RTMP_MSG_CAPTION
 * @param timeStampDelta  milliseconds of video since the last caption message, of whatever session
 * @return a message allocated with calloc, payload included; the library frees both. Null: nothing is
 *         sent, and an error is logged. Default: null.
 */
RTMP_HOST RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient *client, uint32_t kind,
                                                      uint64_t timeStampDelta);

/**
 * publishChangeState tells a publishing connection that its session is going away. Called by
 * RtmpSessionDestroy, on its thread, with `state` 8 for each client that carries a publish context, before
 * the client's thread is signalled. The server's session list lock and the session's client list lock are
 * held: it must neither call DestroyRtmpClient nor wait for the thread that serves the client, but may tell
 * that thread to leave. Default: nothing.
 */
RTMP_HOST void publishChangeState(RtmpClient *client, int32_t state);

/**
 * PublishUstreamRecord asks the host to restart recording on the streaming service: `action` is "start".
 * Called on the thread that handles the client's messages (ParseRequestMsg), no locks held, whoever sent the
 * notice: check `client->PublishCtx`, which is null for a player. May block and send messages to the client;
 * must not destroy the client or its session. Default: nothing.
 */
RTMP_HOST void PublishUstreamRecord(RtmpClient *client, const char *action);

/**
 * rtmpStatusMessage reports a status: a key such as "rtmpBandwidth" (kbit/s), "rtmpUptime" (seconds),
 * "rtmpLowBitrate" ("0" or "1"), "rtmpDroppedFrames" (frames that players which fell behind did not get,
 * since the session was made), "rtmpCurrentViewerCount", "rtmpTotalViewerCount"; its value as decimal
 * text; and a description for people. The texts are valid for the call.
 *
 * @param hostContext  delivery reports: the RtmpSession; viewer counts: PublishCtx.StatusHostContext
 *
 * Called, by key:
 *   - rtmpBandwidth, rtmpUptime of the packet monitor: on the thread that calls RtmpSendData, with
 *     the server's session list lock held; of the threaded sender: on the sender thread, with the session
 *     list lock and a lock of the ring held; both on the steady road (RtmpServiceSettings): on the thread
 *     that calls RtmpSendData, no locks held;
 *   - rtmpDroppedFrames, on the steady road alone: on the thread that calls RtmpSendData, no locks held, at
 *     most once a second, when the number has grown;
 *   - rtmpLowBitrate: on the thread that calls RtmpSendData, no locks held;
 *   - viewer counts: on the thread that handles a service's messages (ParseRequestMsg), no locks held.
 * Must not block (players wait) and must not call the library. Default: nothing.
 */
RTMP_HOST void rtmpStatusMessage(void *hostContext, const char *key, const char *value,
                                 const char *description);

/**
 * rtmpSendZandBitrate sets the encoder's target bitrate in bit/s. `hostContext` is the RtmpSession. Called by
 * the adaptive bitrate controller on the thread that calls RtmpSendData, no locks held: RtmpSendData returns
 * when it does. Must not call RtmpSendData, the settings or RtmpThreadedQueueReset of the session: note the
 * target and hand it to the encoder between two frames. Default: nothing.
 */
RTMP_HOST void rtmpSendZandBitrate(void *hostContext, int32_t bitrate);

/**
 * rtmpKeyFrameWanted tells that a player waits for a key frame, and that the session holds none to begin
 * with: it has just joined, or has fallen far behind. A host that can make its encoder do so sends one soon;
 * nothing is wrong where it does not, the player waits for the next. On the steady road alone
 * (RtmpServiceSettings).
 *
 * Called on the thread that calls RtmpSendData, no locks held, behind a frame, at most once a second until a
 * key frame comes; RtmpSendData returns when it does. Must not call RtmpSendData, the settings or
 * RtmpThreadedQueueReset of the session. Default: nothing.
 */
RTMP_HOST void rtmpKeyFrameWanted(RtmpSession *session);

/**
 * SSL_read and SSL_write carry the bytes of a client that has a TLS handle (RtmpClient.Tls). They are
 * OpenSSL's own: link libssl in front of the defaults, which fail every call. The library calls no other
 * function of libssl, and before each SSL_read it clears the calling thread's error queue (ERR_clear_error).
 *
 * Threads: SSL_read is called by the thread that reads the client (ReadRtmpMessage, or a serve thread),
 * SSL_write by every thread that sends to it: that one, for replies; the one that calls RtmpSendData or
 * SendMsgToClient; the sender thread of a session in mode 1. While the client exists the handle is the
 * library's: no other function of it may be called, on any thread, but from inside TLS_print_error.
 *
 * Locks: each call, and TLS_print_error, is made under a lock of the connection, RtmpClient.TlsLock, so that
 * the handle has one call at a time; renewals of keys (SSL_key_update, TLS 1.3) need that. A write also
 * holds the client's WriteLock, and a frame the server's session list and the session's client list. The
 * calls must not call back into the library. The calling thread is not cancelled inside them.
 *
 * The socket: the handle reads and writes RtmpClient.Socket itself (SSL_set_fd), and its handshake is done.
 * Outside of the calls the descriptor blocks, as the host has made it. For the length of each call the
 * library sets O_NONBLOCK on it. A call that would have to wait for the peer then answers -1 and leaves
 * EAGAIN in errno, as SSL_read and SSL_write of OpenSSL do; the library waits without the lock and repeats
 * the call with the same arguments. SO_RCVTIMEO, SO_SNDTIMEO and signals end that wait as they would end
 * recv and send. On a descriptor that the host has made non-blocking nothing is waited for: EAGAIN fails
 * the read or write. With a Socket that is no open descriptor, the functions are called without lock and
 * without waiting, and must take care of threads themselves.
 *
 * Modes: SSL_MODE_AUTO_RETRY must be on, as it is by default since OpenSSL 1.1.1: without it a read that
 * finds a session ticket or a key update fails. SSL_MODE_ENABLE_PARTIAL_WRITE and read-ahead are free.
 * Renewals of keys by the peer are answered by OpenSSL, from 1.1.1c on with the next write; see
 * rtmpTlsOwesRenewal for peers that ask for several while a write waits for them. Renegotiation
 * (TLS 1.2 and before) is not supported beside frames; turn it off with SSL_OP_NO_RENEGOTIATION.
 *
 * SIGPIPE must be ignored (HandleSignal): libssl writes without MSG_NOSIGNAL.
 *
 * The handle stays the host's. The library never calls SSL_shutdown or SSL_free; free it when no thread
 * reads the client or sends to it any more and DestroyRtmpClient has returned.
 */
struct ssl_st;
RTMP_HOST int SSL_read(struct ssl_st *ssl, void *buf, int num);
RTMP_HOST int SSL_write(struct ssl_st *ssl, const void *buf, int num);

/**
 * TLS_print_error reports the TLS error state after a read or write returned 0. `tls` is the client's TLS
 * handle; null when a plain connection's write returned 0. Called on the reading or writing thread, with
 * the locks of SSL_read and SSL_write. It may ask the handle (SSL_get_error) and log. Default: nothing.
 */
RTMP_HOST void TLS_print_error(RtmpLogger *logger, void *tls, int result);

/**
 * rtmpTlsOwesRenewal says whether a handle has a renewal of keys of its peer still to answer (TLS 1.3). The
 * answer leaves with the next SSL_write. While one of those waits for the peer in the middle of a record, an
 * SSL_read that finds another renewal has OpenSSL (up to 3.0 at least) put the answer into that record's
 * middle, which ends the connection. So such a handle is not read before the record is out.
 *
 * Called in front of an SSL_read while a write of the same handle waits for the peer, on the reading thread,
 * with the locks of SSL_read. With OpenSSL:
 *
 *     return SSL_get_key_update_type(tls) != SSL_KEY_UPDATE_NONE;
 *
 * @return 0: it owes none, or does not know: it is read. Default: 0. Else: it is read later
 */
RTMP_HOST int32_t rtmpTlsOwesRenewal(struct ssl_st *tls);

/**
 * rtmpTlsAccept makes the TLS handle of a connection to RtmpServiceLimits.TlsPort, whose peer speaks TLS
 * first. Called once for each, on the connection's own thread, no locks held: it may block, and no other
 * connection waits for it. As a rule it is SSL_new, SSL_set_fd and SSL_accept, on a context that the host
 * shares between all connections. The handle must keep the rules of SSL_read and SSL_write above.
 *
 * Time: TLS's handshake counts towards RtmpServiceLimits.HandshakeMilliseconds. When that time is up, or the
 * server is being destroyed, another thread shuts the socket down (shutdown(2)): reads of it answer 0 from
 * then on and writes fail, and the function has to return. RtmpServerDestroy waits for it.
 *
 * @param fd       the connection's socket, which blocks. It stays the library's: not to be closed, and left
 *                 blocking
 * @param address  the peer's IPv4 address as text, valid for the call
 * @return the handle, with its handshake done, which the library uses from now on (SSL_read, SSL_write) and
 *         gives back with rtmpTlsEnd; null: refused, or the handshake failed. The connection is then closed
 *         with a log line, and rtmpTlsEnd is not called: free what was made before returning. Default: null.
 *
 * Give no session tickets (SSL_OP_NO_TICKET, SSL_CTX_set_num_tickets): players do not resume, and players of
 * librtmp over GnuTLS take a ticket of TLS 1.3 for the end of the connection.
 */
RTMP_HOST struct ssl_st *rtmpTlsAccept(RtmpServer *server, int fd, const char *address);

/**
 * rtmpTlsEnd takes back a handle that rtmpTlsAccept returned, and frees it. Called once for each, on the
 * connection's own thread, no locks held, after the last use of the handle and before its descriptor is
 * closed, with SSL_free as a rule. The descriptor does not block any more, so that one SSL_shutdown before it
 * waits for nobody: a refused peer hears of it, and with most others the socket has been shut down and the
 * call fails. Default: nothing.
 */
RTMP_HOST void rtmpTlsEnd(struct ssl_st *tls);

/**
 * rtmpViewerAccepted, rtmpViewerConnects and rtmpViewerPlays tell of a viewer on its way, and ask whether it
 * may go on; rtmpViewerLeft tells that it has left. Told of are the connections that the library accepts on
 * the steady road (RtmpServiceSettings).
 *
 *   - rtmpViewerAccepted: the connection is there, and counts as a client; nothing has been read from it, and
 *     TLS has not begun. Refused: it is closed.
 *   - rtmpViewerConnects: "connect" named the application, and passes the library's own rules. Refused: it is
 *     answered with "_error", NetConnection.Connect.Rejected, and the connection ends.
 *   - rtmpViewerPlays: "play" named a stream, which has not been looked up yet. Called for every "play", also
 *     where no stream of that name exists, and for every connection, also one that was there before
 *     RtmpServiceSettings and is told of nowhere else. Refused: the player is answered as if there were none
 *     (NetStream.Play.StreamNotFound), so that strangers do not learn names, and the connection ends.
 *   - rtmpViewerLeft: called exactly once for each rtmpViewerAccepted, whatever it answered and however the
 *     connection ended. Figures is what the viewer got; Session still exists.
 *
 * @param viewer  valid for the call
 * @return 0: the viewer goes on; any other value refuses it. Default: 0 for everybody, and nothing.
 *
 * Called on the thread that serves the connection, no locks held. Each may block: that viewer waits, and
 * nobody else, but for RtmpSessionDestroy of a session that it has joined and RtmpServerDestroy, which wait
 * until the function returns. The time limits for handshake and "play" go on meanwhile. So it must neither
 * destroy a session or the server nor wait for a thread that may be doing so, and must not call what takes
 * the session list lock: RtmpSessionDestroy holds it while it waits. The look-ups of server.h but
 * ValidateRtmpStreamName, RtmpSessionStatistics and RtmpClientStatistics of `viewer->Session` may be called.
 */
RTMP_HOST int32_t rtmpViewerAccepted(const RtmpViewer *viewer);
RTMP_HOST int32_t rtmpViewerConnects(const RtmpViewer *viewer);
RTMP_HOST int32_t rtmpViewerPlays(const RtmpViewer *viewer);
RTMP_HOST void rtmpViewerLeft(const RtmpViewer *viewer);

#ifdef __cplusplus
}
#endif

#endif
