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
 * either field null: nowhere. Any thread.
 */
RTMP_API void RtmpLogPrint(RtmpLogger *logger, uint8_t level, const char *format, ...) RTMP_PRINTF(3, 4);

/** HandleSignal ignores SIGPIPE for the process and returns the previous disposition (see signal(2)). */
RTMP_API void (*HandleSignal(void))(int);

/* --------------------------------------------------------------------------------------------- clients */

/**
 * CreateNewRtmpClient makes the record of one connection, in state CLIENT_STATE_INIT.
 *
 * @param connType       RTMP_CONN_RTMP or RTMP_CONN_RTMPT
 * @param socket         connected socket; stays the caller's to close
 * @param peerAddress    dotted IPv4 text; copied
 * @param peerPort       network byte order
 * @param tls            SSL* for every read and write, or null; stays the caller's
 * @return the client, ended with DestroyRtmpClient; null when memory or a lock is not to be had (logged)
 */
RTMP_API RtmpClient *CreateNewRtmpClient(RtmpServer *server, uint32_t connType, int socket,
                                         const char *peerAddress, uint16_t peerPort, void *tls);

/**
 * DestroyRtmpClient takes a client out of its session and frees it. The socket is neither closed nor shut
 * down, and no thread is ended.
 *
 * @return 0 (also for null); -1: a packet list was empty or a lock failed, and the record remains, half
 *         torn down and still in its session. A client that never received or never sent a message always
 *         ends so; a caller that wants its memory back frees the record itself.
 *
 * The thread that serves the client; it may wait for the session's fan-out to finish a frame.
 */
RTMP_API int DestroyRtmpClient(RtmpClient *client);

/**
 * AddClientInSession appends a client to the session's client list.
 *
 * @return 0; -1 a lock failed (logged)
 *
 * Takes the server's session list lock. A client that is in the list already is counted once more and
 * linked only once.
 */
RTMP_API int AddClientInSession(RtmpSession *session, RtmpClient *client);

/* ------------------------------------------------------------------------------- receiving messages */

/**
 * ReadRtmpMessage reads exactly one chunk (RTMP 1.0, 5.3) from the client's connection.
 *
 * @return the message that the chunk belongs to: a new one, not yet in the receive list (see
 *         IsRecvStrmPktExists and AddRecvPkt), or the stored one of its chunk stream. Complete is 1 once
 *         the whole message has arrived. Null: the connection is over (logged).
 *
 * The thread that serves the client; blocks until the chunk has arrived.
 */
RTMP_API RtmpRecvPkt *ReadRtmpMessage(RtmpClient *client);

/** AddRecvPkt stores a packet, in place of the one of the same chunk stream. 0; -1 a lock failed, and the
 *  packet is still the caller's. */
RTMP_API int AddRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);

/** RemoveRecvPkt frees a stored packet, or all of them for null. 0; -1 the list is empty (logged), the
 *  packet is not in it, or a lock failed. */
RTMP_API int RemoveRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt);

/** GetRecvPktFromList returns the stored packet of a chunk stream, or null. It stays the list's. */
RTMP_API RtmpRecvPkt *GetRecvPktFromList(RtmpClient *client, int chunkStreamId);

/** IsRecvStrmPktExists returns 0 when this very packet is stored, else -1. */
RTMP_API int IsRecvStrmPktExists(RtmpClient *client, RtmpRecvPkt *pkt);

/**
 * ParseRequestMsg handles one complete received message by its type.
 *
 * @param kind  receives its RtmpMsgKind; RTMP_MSG_UNSUPPORTED for what the library refuses; left alone
 *              for user control events that are ignored, so set it to 0 before the call
 * @return 0; -1 (logged); RTMP_ERR_STREAM_NOT_FOUND: "play" named no live session
 */
RTMP_API int ParseRequestMsg(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *kind);

/**
 * ProcessSend answers a player's message and moves the client's state.
 *
 * @param request  the message, as read
 * @param kind     what ParseRequestMsg reported
 * @return 0; -1 refused in this state, of no interest, or not answered in full; the state is then
 *         unchanged, except that a repeated play has left the playing state and a pause has paused
 *
 * The thread that serves the client.
 */
RTMP_API int ProcessSend(RtmpClient *client, RtmpRecvPkt *request, uint32_t kind);

/* --------------------------------------------------------------------------------- sending messages */

/**
 * GenerateRtmpMsg builds a message.
 *
 * @param recvPkt  the RtmpRecvPkt that caused it; needed by kinds 2, 4, 11 and 42, else may be null
 * @param kind     2, 4, 9 to 16, 23, 36 to 52
 * @return the message, taken over by SendMsgToClient; null on failure (logged)
 */
RTMP_API RtmpSendPkt *GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t kind);

/**
 * GenerateRtmpMediaMsg builds a media message that references `data`.
 *
 * @param kind         RTMP_MSG_VIDEO or RTMP_MSG_AUDIO
 * @param length       media bytes behind the FLV tag body header (5 bytes for video, 2 for audio)
 * @param data         start of the tag body; must outlive the message
 * @param wantedDelta  milliseconds since the previous message on the chunk stream
 * @return the message; null on failure (logged)
 */
RTMP_API RtmpSendPkt *GenerateRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length,
                                           const uint8_t *data, uint64_t wantedDelta);

/**
 * SendMsgToClient writes one message, cut into chunks of the server's chunk size.
 *
 * @param message  taken over in every case: freed, or kept as the reference of its chunk stream
 * @param kind     RtmpMsgKind; 42 always gets a full header
 * @return 0 written whole; -1 (logged)
 *
 * Any thread; one message at a time reaches the socket.
 */
RTMP_API int SendMsgToClient(RtmpClient *client, RtmpSendPkt *message, uint32_t kind);

/** AddSendPkt stores a message, in place of the one of the same chunk stream. 0; -1 a lock failed. */
RTMP_API int AddSendPkt(RtmpClient *client, RtmpSendPkt *pkt);

/** RemoveSendPkt frees a stored message, or all of them for null. 0; -1 the list is empty (logged), the
 *  message is not in it, or a lock failed. */
RTMP_API int RemoveSendPkt(RtmpClient *client, RtmpSendPkt *pkt);

/** GetSendPktFromList returns the stored message of a chunk stream, or null. It stays the list's. */
RTMP_API RtmpSendPkt *GetSendPktFromList(RtmpClient *client, int chunkStreamId);

/* ------------------------------------------------------------------------------------------------ AMF0 */

/*
 * `server` serves only to find the logger and may be null. Failures are logged. Decoded lists borrow the
 * bytes they were decoded from; built lists own copies: FreeAmfObject is told which.
 */

/**
 * DecodeAmfBuffer appends every value found in `buf` to `out`, up to the end or to 00 00 09.
 *
 * @param noNames  1: unnamed values (a message body); 0: named ones (an object's members)
 * @return bytes consumed; -1: a value could not be read, or more than 1,024 objects and arrays stand within
 *         one another; what was appended before stays in `out`
 */
RTMP_API int32_t DecodeAmfBuffer(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len,
                                 uint8_t noNames);

/** AddAmfProp appends a property, which the list then owns. */
RTMP_API void AddAmfProp(RtmpServer *server, AmfObject *obj, AmfObjProperty *prop);

/**
 * GetAmfProp finds a property: by name when `index` is negative (the first of that name, or null), else by
 * position. A position beyond the count finds the first property; the position equal to it, null.
 */
RTMP_API AmfObjProperty *GetAmfProp(RtmpServer *server, AmfObject *obj, const AmfString *name, int32_t index);

/** GetAmfPropName copies the reference to the name. */
RTMP_API void GetAmfPropName(RtmpServer *server, AmfObjProperty *prop, AmfString *out);

/** GetAmfPropString copies the reference to the string, whatever the type. */
RTMP_API void GetAmfPropString(RtmpServer *server, AmfObjProperty *prop, AmfString *out);

/** GetAmfPropType returns the AmfType. */
RTMP_API uint32_t GetAmfPropType(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfPropNumber returns the number, whatever the type. */
RTMP_API double GetAmfPropNumber(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfPropBoolean returns the stored byte: inverted for decoded values. */
RTMP_API uint8_t GetAmfPropBoolean(RtmpServer *server, AmfObjProperty *prop);

/** GetAmfObject copies the head of a nested list; the list is shared. */
RTMP_API void GetAmfObject(RtmpServer *server, AmfObjProperty *prop, AmfObject *out);

/**
 * FreeAmfObject frees the properties of a list, nested objects included.
 *
 * @param freeStrings  1 for built lists, 0 for decoded ones
 * @return 0. A list of 65,535 values or more is not freed at all.
 */
RTMP_API int32_t FreeAmfObject(RtmpServer *server, AmfObject *obj, uint8_t freeStrings);

/** WriteAmfNumber appends a number; `name` may be null. 0; -1 no memory. */
RTMP_API int WriteAmfNumber(RtmpServer *server, AmfObject *into, const char *name, double value);

/** WriteAmfBoolean appends a boolean; `name` may be null. 0; -1 no memory. */
RTMP_API int WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value);

/** WriteAmfString appends a string; `name` may be null. 0; -1 no memory, or a null value (not logged). */
RTMP_API int WriteAmfString(RtmpServer *server, AmfObject *into, const char *name, const char *value);

/** WriteAmfNull appends a null. 0; -1 no memory. */
RTMP_API int WriteAmfNull(RtmpServer *server, AmfObject *into);

/** WriteAmfObject appends an object that takes over the list `value`. 0; -1 no memory, or null (not
 *  logged). */
RTMP_API int WriteAmfObject(RtmpServer *server, AmfObject *into, AmfObject *value);

/** WriteAmfArray appends an ECMA array that takes over the list `value`, which FreeAmfObject does not
 *  walk. 0; -1 no memory, or null (not logged). */
RTMP_API int WriteAmfArray(RtmpServer *server, AmfObject *into, AmfObject *value);

/** GetAmfEncBuffSize returns the bytes that EncodeAmfBuffer needs. */
RTMP_API uint32_t GetAmfEncBuffSize(RtmpServer *server, AmfObject *obj);

/**
 * EncodeAmfBuffer encodes a list: unnamed values at the top, named numbers and strings one level below.
 *
 * @param size  from GetAmfEncBuffSize for the same list
 * @return `size` bytes to be freed with free; null: no memory
 */
RTMP_API uint8_t *EncodeAmfBuffer(RtmpServer *server, int32_t size, AmfObject *obj);

#ifdef __cplusplus
}
#endif

#endif
