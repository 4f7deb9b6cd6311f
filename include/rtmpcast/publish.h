/*
 * What a publishing host uses: client records, reading and dispatching messages, building and sending
 * them, the AMF0 value list, and the record into which a streaming service's answers go. It also declares
 * the small services of the library that hosts share: logging and HandleSignal.
 */
#ifndef RTMPCAST_PUBLISH_H
#define RTMPCAST_PUBLISH_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* -------------------------------------------------------------------------------------------- services */

/**
 * RtmpLogPrint writes one line. Null logger: to standard output behind "RTMPWriter: "; a logger with
 * either field null: nowhere.
 *
 * Any thread, also from within host functions; takes no lock (but standard output's), and blocks as long as
 * the host's log function or standard output does. The calling thread cannot be cancelled in it.
 */
RTMP_API void RtmpLogPrint(RtmpLogger *logger, uint8_t level, const char *format, ...) RTMP_PRINTF(3, 4);

/**
 * HandleSignal ignores SIGPIPE for the process and returns the previous disposition (see signal(2)). Any
 * thread; takes no lock and does not block.
 */
RTMP_API void (*HandleSignal(void))(int);

/* --------------------------------------------------------------------------------------------- clients */

/**
 * CreateNewRtmpClient makes the record of one connection, in state CLIENT_STATE_INIT.
 *
 * @param server         whose chunk size and logger the client uses, for as long as it lives; not null
 * @param connType       RTMP_CONN_RTMP or RTMP_CONN_RTMPT
 * @param socket         connected socket; stays the caller's to close
 * @param peerAddress    dotted IPv4 text, not null; copied
 * @param peerPort       network byte order
 * @param tls            SSL* for every read and write, as SSL_read in host.h asks for, or null; stays the
 *                       caller's
 * @return the client, ended with DestroyRtmpClient; null when memory or a lock is not to be had (logged)
 *
 * Any thread; takes no lock and does not block.
 */
RTMP_API RtmpClient *CreateNewRtmpClient(RtmpServer *server, uint32_t connType, int socket,
                                         const char *peerAddress, uint16_t peerPort, void *tls);

/**
 * DestroyRtmpClient takes a client out of its session and frees it. The socket is neither closed nor shut
 * down, and no thread is ended.
 *
 * @return 0 (also for null); -1: a packet list was empty or a lock failed (logged), and the record remains,
 *         half torn down and still in its session (a client list that could not be unlocked has let go of it
 *         all the same). A client that never received or never sent a message
 *         always ends so. A caller that wants the memory back frees the record itself, unless the client has
 *         joined a session: there it stays a member, and RtmpSessionDestroy waits for it without end.
 *
 * The thread that serves the client, which uses the record no more; not from within a host function that is
 * called with locks held. Takes the session's client list lock, and so waits for a frame that is being
 * written, to whichever player; and leaf locks.
 */
RTMP_API int DestroyRtmpClient(RtmpClient *client);

/**
 * AddClientInSession appends a client to the session's client list.
 *
 * @return 0; -1 a lock failed (logged): one that could not be taken leaves the client out, one that could not
 *         be released has let it join. On the steady road also: no memory or descriptor for the client's
 *         frames, or the server is being destroyed (logged); the client has not joined
 *
 * The thread that serves the client, while the session exists. Takes the server's session list lock, and
 * waits for it as long as a sender or RtmpSessionDestroy holds it. A client that is in the list already is
 * counted once more and linked only once.
 */
RTMP_API int AddClientInSession(RtmpSession *session, RtmpClient *client);

/* ------------------------------------------------------------------------------- receiving messages */

/**
 * ReadRtmpMessage reads exactly one chunk (RTMP 1.0, 5.3) from the client's connection.
 *
 * @return the message that the chunk belongs to: a new one, not yet in the receive list (see
 *         IsRecvStrmPktExists and AddRecvPkt), or the stored one of its chunk stream. Complete is 1 once
 *         the whole message has arrived; before that PayloadData holds ReceivedBytes bytes and no more, and
 *         may move with the next chunk. Null: the connection is over, or memory or a lock failed (logged).
 *
 * The thread that serves the client. Blocks until the chunk has arrived, without limit; a signal whose
 * handler returns ends the wait with null. Takes the client's receive list lock, and holds it while it reads
 * the next chunk of a stored message.
 */
RTMP_API RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client);

/**
 * AddRecvPkt stores a packet, in place of the one of the same chunk stream, which is freed. The list owns it.
 *
 * @return 0 stored, or stored already; -1 a lock failed (logged), and the packet is still the caller's
 *
 * The thread that serves the client. Takes the receive list lock, a leaf; does not block.
 */
RTMP_API int AddRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);

/**
 * RemoveRecvPkt frees a stored packet with its payload and decoded values, or all of them for null.
 *
 * @return 0; -1 the list is empty or a lock failed (both logged), or the packet is not in it. Where the lock
 *         could not be released the packet is freed all the same: do not use it after a lock's failure
 *
 * The thread that serves the client. Takes the receive list lock, a leaf; does not block.
 */
RTMP_API int RemoveRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);

/**
 * GetRecvPktFromList returns the stored packet of a chunk stream; it stays the list's. Null: none, or a lock
 * failed (logged).
 *
 * Of a message that is not Complete there are ReceivedBytes bytes in PayloadData and no more, and the next
 * chunk may move them.
 *
 * The thread that serves the client. Takes the receive list lock, a leaf; does not block.
 */
RTMP_API RtmpRecvPkt *GetRecvPktFromList(RtmpClient *client, int chunkStreamId);

/**
 * IsRecvStrmPktExists tells whether this very packet is stored. 0 it is; -1 it is not, or a lock failed
 * (logged).
 *
 * The thread that serves the client. Takes the receive list lock, a leaf; does not block.
 */
RTMP_API int IsRecvStrmPktExists(RtmpClient *client, RtmpRecvPkt *pkt);

/**
 * ParseRequestMsg handles one complete received message by its type: decoded values stay with it and are
 * freed with it, those of an earlier call for the same packet before it is handled again.
 *
 * @param pkt   a packet whose Complete is 1
 * @param kind  receives its RtmpMsgKind; RTMP_MSG_UNSUPPORTED for what the library refuses; left alone
 *              for user control events that are ignored, so set it to 0 before the call
 * @return 0; -1 a malformed message, a lock or memory (logged); RTMP_ERR_STREAM_NOT_FOUND: "play" named no
 *         live session, or a lock failed on the way to it (logged); one that could not be released may have
 *         let the client join: close it then, as for a name that is not there
 *
 * The thread that serves the client, no locks held. Takes the session's client list lock for set chunk size,
 * window acknowledgement size and "pause", and holds it while a "ping" or ping request is answered, which
 * blocks as long as the peer takes nothing; takes the server's session list lock for "play". Calls
 * PublishUstreamRecord and rtmpStatusMessage.
 */
RTMP_API int ParseRequestMsg(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind);

/**
 * ProcessSend answers a player's message and moves the client's state.
 *
 * @param request  the message, as read
 * @param kind     what ParseRequestMsg reported
 * @return 0; -1 refused in this state, of no interest, or not answered in full; the state is then
 *         unchanged, except that a repeated play has left the playing state, a pause has paused, and a client
 *         list that could not be unlocked behind the change leaves the new state standing. What failed is
 *         logged; kinds of no interest are not. Over TLS as for SendMsgToClient
 *
 * The thread that serves the client, no locks held. Takes the session's client list lock to change the state,
 * and the client's write lock for each message: blocks as long as the peer takes nothing.
 */
RTMP_API int ProcessSend(RtmpClient *client, RtmpRecvPkt *request, uint32_t kind);

/* --------------------------------------------------------------------------------- sending messages */

/**
 * GenerateRtmpMsg builds a message.
 *
 * @param recvPkt  the RtmpRecvPkt that caused it; needed by kinds 2, 4, 11, 42 and 57, else may be null
 * @param kind     2, 4, 9 to 16, 23, 36 to 52, 55 to 57
 * @return the message, the caller's until SendMsgToClient takes it over; null: no client, another kind, no
 *         memory, a lock, or a session that has not what the kind needs (logged)
 *
 * It is stamped with the milliseconds since CreateNewRtmpClient. 4 moves StreamId on, 12 StatusChunkStreamId,
 * and 43 switches the server, with all its clients, to its configured chunk size, whether the message is sent
 * or not. 49, 51 and 52 refer to the session's media information.
 *
 * 48 is the data message onStatus, NetStream.Data.Start. It travels, as 13 to 15, 49 and 50 do, on the chunk
 * stream of the video, whose clock goes on from the last message sent there: sent between frames, it sets the
 * video's time to its own stamp, and the sound stays where it is (docs/manual.md, section 8).
 *
 * The thread that serves the client, or, while the client does not play, the one that drives it. Takes the
 * client's send list lock, a leaf; does not block.
 */
RTMP_API RtmpSendPkt *GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);

/**
 * GenerateRtmpMediaMsg builds a media message that references `data`.
 *
 * @param msgKind      RTMP_MSG_VIDEO or RTMP_MSG_AUDIO
 * @param length       media bytes behind the FLV tag body header (5 bytes for video, 2 for audio)
 * @param data         start of the tag body; must outlive the message
 * @param wantedDelta  milliseconds since the previous message on the chunk stream
 * @return the message, the caller's until SendMsgToClient takes it over; null: another kind, no memory, or a
 *         lock (logged)
 *
 * The first message of a chunk stream is stamped with the milliseconds since CreateNewRtmpClient, each
 * further one `wantedDelta` later than the last that was sent. The stamp is also noted for the session's
 * sender.
 *
 * One thread at a time per client. Takes the client's send list lock, a leaf; does not block.
 */
RTMP_API RtmpSendPkt *GenerateRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length,
                                           const uint8_t *data, uint64_t wantedDelta);

/**
 * SendMsgToClient writes one message, cut into chunks of the server's chunk size.
 *
 * @param message  taken over in every case: freed, or kept as the reference of its chunk stream. Its
 *                 payload has as many bytes as its length says
 * @param kind     RtmpMsgKind; 42 always gets a full header
 * @return 0 written whole; -1 the write failed, or memory or a lock (logged); also for null, and for a length
 *         without a payload (logged): nothing has left. A message of which a part has left is the
 *         connection's last: its socket is shut down. Over TLS (the default road) a write that fails in the
 *         midst of a message is logged and answers 0; the socket is shut down all the same
 *
 * Any thread, while the client exists; one message at a time reaches the socket. Takes the client's write
 * lock and holds it while it writes, which blocks as long as the peer takes nothing, without limit; and the
 * send list lock, a leaf.
 */
RTMP_API int SendMsgToClient(RtmpClient *client, RtmpSendPkt *message, uint32_t kind);

/**
 * AddSendPkt stores a message, in place of the one of the same chunk stream, which is freed. The list owns
 * it.
 *
 * @return 0 stored, or stored already; -1 a lock failed (logged), and the message is still the caller's
 *
 * The thread that serves the client, while the client is not in the playing state: frames are written against
 * stored messages. Takes the send list lock, a leaf; does not block.
 */
RTMP_API int AddSendPkt(RtmpClient *client, RtmpSendPkt *pkt);

/**
 * RemoveSendPkt frees a stored message, or all of them for null.
 *
 * @return 0; -1 the list is empty or a lock failed (both logged), or the message is not in it. Where the lock
 *         could not be released the message is freed all the same
 *
 * Threads, lock and state as for AddSendPkt; does not block.
 */
RTMP_API int RemoveSendPkt(RtmpClient *client, RtmpSendPkt *pkt);

/**
 * GetSendPktFromList returns the stored message of a chunk stream; it stays the list's. Null: none, or a lock
 * failed (logged).
 *
 * Threads, lock and state as for AddSendPkt; does not block.
 */
RTMP_API RtmpSendPkt *GetSendPktFromList(RtmpClient *client, int chunkStreamId);

/* ------------------------------------------------------------------------------------------------ AMF0 */

/*
 * `server` serves only to find the logger and may be null; other pointers may not, unless said. Failures are
 * logged. Decoded lists borrow the bytes they were decoded from; built lists own copies: FreeAmfObject is
 * told which. All of these may be called on any thread, one at a time per list; they take no lock and do not
 * block.
 */

/**
 * DecodeAmfBuffer appends every value found in `buf` to `out`, up to the end or to 00 00 09.
 *
 * @param noNames  1: unnamed values (a message body); 0: named ones (an object's members)
 * @return bytes consumed; -1: a value could not be read, or more than 1,024 objects and arrays stand within
 *         one another; what was appended before stays in `out`
 *
 * Any thread, one at a time per list; no lock.
 */
RTMP_API int32_t DecodeAmfBuffer(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len,
                                 uint8_t noNames);

/** AddAmfProp appends a property, which the list then owns. Any thread, one at a time per list; no lock. */
RTMP_API void AddAmfProp(RtmpServer *server, AmfObject *obj, AmfObjProperty *prop);

/**
 * GetAmfProp finds a property: by name when `index` is negative (the first of that name, or null), else by
 * position. A position beyond the count finds the first property; the position equal to it, null. The
 * property stays the list's. Any thread, while nobody changes the list; no lock.
 */
RTMP_API AmfObjProperty *GetAmfProp(RtmpServer *server, AmfObject *obj, const AmfString *name, int32_t index);

/** GetAmfPropName copies the reference to the name. Any thread, while nobody changes the list; no lock. */
RTMP_API void GetAmfPropName(RtmpServer *server, AmfObjProperty *prop, AmfString *out);

/** GetAmfPropString copies the reference to the string, whatever the type. Any thread, while nobody changes
 * the list; no lock. */
RTMP_API void GetAmfPropString(RtmpServer *server, AmfObjProperty *prop, AmfString *out);

/** GetAmfPropType returns the AmfType. Any thread, while nobody changes the list; no lock. */
RTMP_API uint32_t GetAmfPropType(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfPropNumber returns the number, whatever the type. Any thread, while nobody changes the list; no
 * lock. */
RTMP_API double GetAmfPropNumber(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfPropBoolean returns the stored byte: inverted for decoded values. Any thread, while nobody changes
 * the list; no lock. */
RTMP_API uint8_t GetAmfPropBoolean(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfObject copies the head of a nested list; the list is shared. Any thread, while nobody changes the
 * list; no lock. */
RTMP_API void GetAmfObject(RtmpServer *server, AmfObjProperty *prop, AmfObject *out);

/**
 * FreeAmfObject frees the properties of a list, nested objects included.
 *
 * @param freeStrings  1 for built lists, 0 for decoded ones
 * @return 0. A list of 65,535 values or more is not freed at all.
 *
 * Any thread, one at a time per list; no lock.
 */
RTMP_API int32_t FreeAmfObject(RtmpServer *server, AmfObject *obj, uint8_t freeStrings);

/** WriteAmfNumber appends a number; `name` may be null. 0; -1 no memory. Any thread, one at a time per list;
 * no lock. */
RTMP_API int WriteAmfNumber(RtmpServer *server, AmfObject *into, const char *name, double value);

/** WriteAmfBoolean appends a boolean; `name` may be null. 0; -1 no memory. Any thread, one at a time per
 * list; no lock. */
RTMP_API int WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value);

/** WriteAmfString appends a string; `name` may be null. 0; -1 no memory, or a null value (not logged).
 *  Any thread, one at a time per list; no lock. */
RTMP_API int WriteAmfString(RtmpServer *server, AmfObject *into, const char *name, const char *value);

/** WriteAmfNull appends a null. 0; -1 no memory. Any thread, one at a time per list; no lock. */
RTMP_API int WriteAmfNull(RtmpServer *server, AmfObject *into);

/** WriteAmfObject appends an object that takes over the list `value`. 0; -1 no memory, or null (not
 *  logged); the list is then still the caller's. Any thread, one at a time per list; no lock. */
RTMP_API int WriteAmfObject(RtmpServer *server, AmfObject *into, AmfObject *value);

/** WriteAmfArray appends an ECMA array that takes over the list `value`, which FreeAmfObject does not
 *  walk. 0; -1 no memory, or null (not logged); the list is then still the caller's. Any thread, one at a
 * time per list; no lock. */
RTMP_API int WriteAmfArray(RtmpServer *server, AmfObject *into, AmfObject *value);

/** GetAmfEncBuffSize returns the bytes that EncodeAmfBuffer needs. Any thread, while nobody changes the list;
 * no lock. */
RTMP_API uint32_t GetAmfEncBuffSize(RtmpServer *server, AmfObject *obj);

/**
 * EncodeAmfBuffer encodes a list: unnamed values at the top, named numbers and strings one level below.
 *
 * @param size  from GetAmfEncBuffSize for the same list
 * @return `size` bytes to be freed with free; null: no memory
 *
 * Any thread, while nobody changes the list; no lock.
 */
RTMP_API uint8_t *EncodeAmfBuffer(RtmpServer *server, int32_t size, AmfObject *obj);

#ifdef __cplusplus
}
#endif

#endif
