/*
 * Publishing to a streaming service: from a connected socket to frames that flow, in four calls.
 *
 *     RtmpPublisher *publisher = RtmpPublisherCreate(server, socket, ssl, &target, &error);
 *     int result = RtmpPublisherStart(publisher, session);      handshake, connect ... publish, headers
 *     if (result == RTMP_OK)
 *         result = RtmpPublisherServe(publisher);               until the service goes, or RtmpPublisherStop
 *     RtmpPublisherDestroy(publisher);                          leaves the session; socket and SSL stay yours
 *     shutdown(socket, SHUT_WR);                                over TLS: SSL_shutdown first
 *     read until 0, or for a second or two; close(socket);
 *
 * The last two lines are for a service that reads late: a socket that is closed with bytes in it that nobody
 * has read, or that gets some afterwards, resets the connection, and what the service has not read is lost.
 *
 * One thread makes these calls, one for each publisher; the session's frames go out beside it
 * (RtmpSendData). What the service said is in RtmpPublisherAnswers. Whoever needs another order, or a command
 * that is not here, finds the parts below and in publish.h.
 */
#ifndef RTMPCAST_PUBLISH_CLIENT_H
#define RTMPCAST_PUBLISH_CLIENT_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct RtmpPublisher RtmpPublisher;

enum {
    RTMP_ERR_NO_ANSWER = -112, /* the service did not answer in time: try again, on a new connection */
    RTMP_ERR_REFUSED = -113,   /* it said no: see RtmpPublisherAnswers */
    RTMP_ERR_CONNECTION = -114 /* the connection ended, or what came is no RTMP: the same */
};

/** RtmpPublisherTarget: what the service is told. Texts are copied; each has 65,535 bytes at most. */
typedef struct RtmpPublisherTarget {
    const char *App;             /* behind the host in the URL, query included; not null */
    const char *TcUrl;           /* rtmp://HOST[:PORT]/APP, or rtmps://; not null */
    const char *Key;             /* the stream's name or key, query included; not null */
    const char *FlashVer;        /* null: the encoder's name that services know */
    const char *PeerAddress;     /* dotted IPv4 text, for the log; null: "0.0.0.0" */
    uint32_t AnswerMilliseconds; /* the handshake, an answer or a good-bye may take; 0: 10000 */
    uint8_t IsSigned;            /* sign C1 and C2, as Flash encoders do */
} RtmpPublisherTarget;

/**
 * RtmpPublisherCreate makes a publisher on a connected socket. Its client record has every rule of
 * RTMP_PLAYERS_ALL: RTMP 1.0 as it is written, media time from 0 with a key frame, acknowledgements.
 *
 * @param server  any server, with or without ports; its chunk size and logger are used. Its record stays
 * until RtmpPublisherDestroy, also after RtmpServerDestroy
 * @param socket  connected, and of the blocking kind; stays yours, and open until RtmpPublisherDestroy has
 *                returned
 * @param tls     SSL* over it whose handshake is done (SSL_read in host.h), or null
 * @param err     may be null; receives RTMP_ERR_INVALID_ARGUMENT or RTMP_ERR_MEMORY
 * @return the publisher; null on failure
 *
 * Any thread; takes no lock and does not block.
 */
RTMP_API RtmpPublisher *RtmpPublisherCreate(RtmpServer *server, int socket, void *tls,
                                            const RtmpPublisherTarget *target, int *err);

/**
 * RtmpPublisherStart does everything up to the first frame: handshake, set chunk size, connect,
 * releaseStream, FCPublish, createStream, publish, joining the session, onMetaData and sequence headers.
 *
 * @return 0: frames flow, from the next key frame on; RTMP_ERR_NO_ANSWER, RTMP_ERR_REFUSED;
 *         RTMP_ERR_CONNECTION, also after RtmpPublisherStop, and where memory runs out for a message on its
 *         way; RTMP_ERR_NO_MEDIA_INFO: the session has none yet; RTMP_ERR_INVALID_ARGUMENT: no session of the
 *         publisher's server, or it has been destroyed meanwhile; -1 memory of a command, a lock of the
 *         session, or a registration of media that failed meanwhile. Memory of the handshake and its
 *         signatures is RTMP_ERR_CONNECTION too: try again. What has to do with memory or locks is logged
 *
 * The publisher's thread. Blocks as long as the service takes to answer, AnswerMilliseconds for each, however
 * slowly its bytes come. Errors to releaseStream and FCPublish are passed over. The session may be destroyed
 * meanwhile. Once the publisher has joined it, RtmpSessionDestroy waits for RtmpPublisherDestroy, and must
 * not be called in front of it on the publisher's own thread.
 */
RTMP_API int32_t RtmpPublisherStart(RtmpPublisher *publisher, RtmpSession *session);

/**
 * RtmpPublisherServe handles what the service sends: pings, chunk sizes, windows (acknowledged), notices.
 *
 * @return 0: RtmpPublisherStop was called, or the session is being destroyed; RTMP_ERR_REFUSED: the service
 *         has ended the stream with a status of level "error"; RTMP_ERR_CONNECTION, on the steady road also
 *         where it has taken nothing for StallMilliseconds (RtmpServiceLimits), and where memory or a lock
 *         fails for a message of the service or an answer to it (logged)
 *
 * The publisher's thread. Blocks until then. RtmpSessionDestroy and RtmpServerDestroy, called on another
 * thread, end it, and wait until this one has called RtmpPublisherDestroy. It comes back
 * within 50 ms of RtmpPublisherStop; on the steady road once all that waits for the service has left, and
 * after AnswerMilliseconds at most. The connection is open both ways then.
 */
RTMP_API int32_t RtmpPublisherServe(RtmpPublisher *publisher);

/**
 * RtmpPublisherStop says good-bye to the service (FCUnpublish, deleteStream) and has RtmpPublisherStart and
 * RtmpPublisherServe return.
 *
 * Any thread, until RtmpPublisherDestroy is called, which waits for it; also twice. Takes the client's write
 * lock. On the default road a service that takes nothing is waited for, AnswerMilliseconds for the frame
 * under way and for each of the two commands; then the connection is shut down. On the steady road nobody is,
 * here: where frames wait for the service, RtmpPublisherServe sees them out and says good-bye behind them.
 */
RTMP_API void RtmpPublisherStop(RtmpPublisher *publisher);

/**
 * RtmpPublisherDestroy takes the publisher out of its session and frees it; null is nothing. Neither socket
 * nor TLS handle is closed.
 *
 * The publisher's thread, or another when that one is done with it. Takes the session's client list lock.
 */
RTMP_API void RtmpPublisherDestroy(RtmpPublisher *publisher);

/** RtmpPublisherAnswers returns what the service has said: texts and transaction ids of its last answers. It
 * is the publisher's. The publisher's thread; no lock. */
RTMP_API const PublishCtx *RtmpPublisherAnswers(const RtmpPublisher *publisher);

/** RtmpPublisherClient returns the client record, which is the publisher's. Any thread; no lock. */
RTMP_API RtmpClient *RtmpPublisherClient(RtmpPublisher *publisher);

/* ------------------------------------------------------------------------------------ the single steps */

enum RtmpPublisherCommand {
    RTMP_PUBLISHER_CONNECT = 1,
    RTMP_PUBLISHER_RELEASE_STREAM = 2,
    RTMP_PUBLISHER_FC_PUBLISH = 3,
    RTMP_PUBLISHER_CREATE_STREAM = 4,
    RTMP_PUBLISHER_PUBLISH = 5,
    RTMP_PUBLISHER_FC_UNPUBLISH = 6,
    RTMP_PUBLISHER_CLOSE_STREAM = 7,
    RTMP_PUBLISHER_DELETE_STREAM = 8
};

/** RtmpPublisherHandshake is the connecting side of RTMP 1.0, 5.2, and announces the chunk size by which
 * everything behind it is cut. Codes and threads as for RtmpPublisherStart. */
RTMP_API int32_t RtmpPublisherHandshake(RtmpPublisher *publisher);

/**
 * RtmpPublisherSend sends a command.
 *
 * @param transaction  may be null; receives its id, for RtmpPublisherAwait; "publish" has 0 and is answered
 *                     by a status
 * @return 0; RTMP_ERR_CONNECTION not sent, also where memory or a lock fails on its way; -1 no memory to
 *         begin with (both are logged); RTMP_ERR_INVALID_ARGUMENT: no such command. Over TLS as for
 *         SendMsgToClient
 *
 * The publisher's thread. Takes the client's write lock.
 */
RTMP_API int32_t RtmpPublisherSend(RtmpPublisher *publisher, enum RtmpPublisherCommand command,
                                   double *transaction);

/**
 * RtmpPublisherAwait handles messages until the answer to `transaction` is there: `_result` or `_error`; for
 * 0 the next status, or an `_error` that names no command. Answers that come before it are not kept: await
 * them in the order of the commands. The answer to createStream sets the client's StreamId.
 *
 * @return 0; RTMP_ERR_REFUSED (`_error`, or a status of level "error"), RTMP_ERR_NO_ANSWER,
 *         RTMP_ERR_CONNECTION, also where memory or a lock fails for what is read (logged)
 *
 * The publisher's thread. Blocks, AnswerMilliseconds at most; takes leaf locks of the client, and, once it
 * has joined, for a ping or a new chunk size the session's client list lock.
 */
RTMP_API int32_t RtmpPublisherAwait(RtmpPublisher *publisher, double transaction);

/**
 * RtmpPublisherSendData sends an AMF0 data message of the host's own (RTMP 1.0, 7.1.2), stamped with the
 * stream's media time: "onTextData", captions, cue points.
 *
 * @param values  the whole body, "@setDataFrame" included where the service wants it; copied
 * @param length  1 to 16,777,215
 * @return as for RtmpPublisherSend; RTMP_ERR_INVALID_ARGUMENT: no publisher or values, or such a length (all
 *         are logged)
 *
 * Any thread, once RtmpPublisherStart has succeeded. Takes the client's write lock.
 */
RTMP_API int32_t RtmpPublisherSendData(RtmpPublisher *publisher, const uint8_t *values, uint32_t length);

/** RtmpPublisherSendMetaData sends "@setDataFrame", "onMetaData" with what the session knows of its media;
 * again after RtmpAddMediaInfo. Codes, threads and lock as for RtmpPublisherSendData; -1 (logged) also where
 * the session has no media information, because a registration has failed. */
RTMP_API int32_t RtmpPublisherSendMetaData(RtmpPublisher *publisher);

#ifdef __cplusplus
}
#endif

#endif
