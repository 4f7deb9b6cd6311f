/*
 * The steady road: how a server delivers frames that nobody can hold up, how it looks after itself with
 * strangers as viewers, and what the host is told of them. By default none of this is switched on.
 */
#ifndef RTMPCAST_SERVICE_H
#define RTMPCAST_SERVICE_H

#include "rtmpcast/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Options of RtmpServiceLimits, added up. */
enum RtmpServiceOption {
    /* A player that joins starts with the next key frame instead of the last one: lowest delay, later start.
     */
    RTMP_SERVICE_NO_BURST = 1 << 0
};

/**
 * RtmpServiceLimits: how far the steady road goes for a player, and for all of them. A field of 0 means its
 * default; there is no "without limit", but UINT32_MAX comes to it.
 */
typedef struct RtmpServiceLimits {
    uint32_t Options; /* RTMP_SERVICE_... */

    /* Delivery. */
    uint32_t RingMilliseconds;      /* how far a player may fall behind; default 8000 */
    uint32_t RingBytes;             /* and how far in bytes, per session; default 16 MiB */
    uint32_t StallMilliseconds;     /* a player that takes nothing for so long is dropped; default 15000 */
    uint32_t ReplyBytes;            /* answers to commands that may wait for a player; default 64 KiB */
    uint32_t SoundWaitMilliseconds; /* how long sound waits for a later picture; default 500 */

    /* Connections. */
    uint32_t MostClients;           /* connections of both ports at a time; default 1000 */
    uint32_t MostClientsPerAddress; /* of them from one address; default 100 */
    uint32_t HandshakeMilliseconds; /* from accept to the end of the handshake, TLS included; default 10000 */
    uint32_t PlayMilliseconds;      /* from there to "play"; default 30000 */
    uint32_t AssemblyBytes;         /* of messages that a client has begun and not ended; default 256 KiB */
    uint32_t ChunkStreams;          /* a client may use; default 64 */
    uint32_t TunnelMilliseconds;    /* life of a connection to the second port; default 10000 */

    /* A further listener whose connections speak TLS first (rtmpTlsAccept); 0: none. */
    uint16_t TlsPort;
} RtmpServiceLimits;

/**
 * RtmpServiceSettings puts a server on the steady road: frames are laid out once for all players, a write
 * never waits for a player, and a player that falls behind goes on at a key frame. It is independent of
 * RtmpPlayerSettings. Call it once, after RtmpServerCreate and before the first RtmpSessionCreate.
 *
 * @param limits  copied; null: every default
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null server, a session exists, or a second call), RTMP_ERR_MEMORY,
 *         RTMP_ERR_THREAD_CREATE, and for TlsPort RTMP_ERR_SOCKET, RTMP_ERR_BIND and RTMP_ERR_LISTEN; on
 *         failure nothing has changed
 *
 * Any thread, with no other call on this server under way. Does not block. Starts a thread of the server,
 * and another one for TlsPort, which RtmpServerDestroy ends. Connections accepted before the call keep the
 * default's rules of connections (they are never dropped, and leave their descriptor behind); their frames
 * take the steady road, too.
 */
RTMP_API int32_t RtmpServiceSettings(RtmpServer *server, const RtmpServiceLimits *limits);

/** RtmpSessionFigures: a session of the steady road at one moment. */
typedef struct RtmpSessionFigures {
    uint32_t Viewers;          /* playing or paused now */
    uint32_t ViewersInAll;     /* since the session was made */
    uint64_t Bytes;            /* sent to players, protocol included, those that left included */
    uint64_t Frames;           /* audio and video frames sent, counted per player */
    uint64_t DroppedFrames;    /* that players which fell behind did not get */
    uint32_t RingMessages;     /* frames in the ring */
    uint32_t RingMilliseconds; /* from the oldest to the newest of them */
    uint64_t RingBytes;
    uint32_t SlowestMilliseconds; /* how far the slowest player that makes progress is behind */
    uint32_t SlowestPictures;     /* the same in video frames */
} RtmpSessionFigures;

/** RtmpClientFigures: one connection of the steady road at one moment. */
typedef struct RtmpClientFigures {
    char Address[48]; /* text */
    uint16_t Port;    /* host byte order */
    uint8_t IsTls;
    uint32_t State;         /* RtmpClientState */
    uint32_t Milliseconds;  /* since it was accepted */
    uint64_t Bytes;         /* sent to it, protocol included */
    uint64_t Frames;        /* audio and video frames sent to it */
    uint64_t DroppedFrames; /* that it did not get because it fell behind */
    uint32_t Restarts;      /* how often it went on at a key frame */
    uint32_t LagMilliseconds;
    uint32_t LagPictures;     /* the same in video frames */
    uint64_t WaitingBytes;    /* that it has not been sent yet, of frames and answers */
    uint32_t RoundTripMicros; /* TCP's smoothed round-trip time; 0: unknown */
} RtmpClientFigures;

/**
 * RtmpViewer: a connection that the library has accepted, as the host functions rtmpViewer... are told of it.
 * Texts are never null: "" stands for what the peer has not said yet. They are the peer's own words; nobody
 * has looked for control characters in them.
 */
typedef struct RtmpViewer {
    RtmpServer *Server;
    RtmpClient *Client;   /* the same in every call about one viewer; another viewer may get it afterwards */
    RtmpSession *Session; /* that it has joined; null: none yet */
    const char *App;      /* "app" and "tcUrl" of its "connect", cut after 1023 bytes */
    const char *TcUrl;
    const char *Stream; /* the stream of its last "play" as asked for, with what stands behind a "?" */
    RtmpClientFigures Figures;
} RtmpViewer;

/**
 * RtmpSessionStatistics fills the figures of a session.
 *
 * @return 0; RTMP_ERR_INVALID_ARGUMENT (null, or the session is not on the steady road): nothing is filled
 *
 * Any thread, while the session exists. Takes leaf locks only, and waits for no player.
 */
RTMP_API int32_t RtmpSessionStatistics(RtmpSession *session, RtmpSessionFigures *figures);

/**
 * RtmpClientStatistics fills the figures of the first `most` players of a session, in the order in which they
 * joined.
 *
 * @param clients  room for `most` records; may be null when `most` is 0
 * @return how many players there are, also above `most`; RTMP_ERR_INVALID_ARGUMENT as above
 *
 * Threads and locks as for RtmpSessionStatistics.
 */
RTMP_API int32_t RtmpClientStatistics(RtmpSession *session, RtmpClientFigures *clients, uint32_t most);

#ifdef __cplusplus
}
#endif

#endif
