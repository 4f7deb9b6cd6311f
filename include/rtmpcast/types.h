/*
 * Records, states, codes and message kinds that cross the boundary between rtmpcast and its host.
 *
 * Every record is allocated zero-filled with the calloc family and released with free. The fields stand
 * in a fixed order; fields marked "the library's own" come last, belong to the library, and may change.
 */
#ifndef RTMPCAST_TYPES_H
#define RTMPCAST_TYPES_H

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>

#if defined(__GNUC__)
#define RTMP_API __attribute__((visibility("default")))
#define RTMP_PRINTF(text, arguments) __attribute__((format(printf, text, arguments)))
#else
#define RTMP_API
#define RTMP_PRINTF(text, arguments)
#endif

/* What the host provides. The library finds it also in a host that is compiled with -fvisibility=hidden. */
#define RTMP_HOST RTMP_API

#if defined(__cplusplus) && __cplusplus >= 201703L
#define RTMP_STATUS [[nodiscard]]
#else
#define RTMP_STATUS
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef pthread_mutex_t RtmpMutex;
typedef pthread_t RtmpThread; /* 0 means no thread */

typedef struct AmfObject AmfObject;
typedef struct AmfObjProperty AmfObjProperty;
typedef struct CodecInfo CodecInfo;
typedef struct PublishCtx PublishCtx;
typedef struct RtmpClient RtmpClient;
typedef struct RtmpMonitor RtmpMonitor;
typedef struct RtmpRecvPkt RtmpRecvPkt;
typedef struct RtmpSendPkt RtmpSendPkt;
typedef struct RtmpServer RtmpServer;
typedef struct RtmpSession RtmpSession;
typedef struct RtmpThreadedQueue RtmpThreadedQueue;

/* ---------------------------------------------------------------------------------------- status codes */

enum {
    RTMP_OK = 0,
    RTMP_FAILED = -1,                /* any failure without a code of its own */
    RTMP_ERR_IP_ADDRESS = -73,       /* the interface has no address */
    RTMP_ERR_LOCK_DESTROY = -76,     /* a lock could not be destroyed */
    RTMP_ERR_UNLOCK = -77,           /* a lock could not be released */
    RTMP_ERR_LOCK = -78,             /* a lock could not be taken */
    RTMP_ERR_LOCK_INIT = -79,        /* a lock could not be initialised */
    RTMP_ERR_NO_CLIENT = -82,        /* nobody is connected to the session: go on encoding */
    RTMP_ERR_THREAD_JOIN = -83,      /* a thread could not be joined */
    RTMP_ERR_THREAD_CREATE = -84,    /* a thread could not be started */
    RTMP_ERR_LISTEN = -85,           /* listen failed */
    RTMP_ERR_BIND = -86,             /* bind failed: the port is taken, or needs privileges */
    RTMP_ERR_SOCKET = -87,           /* the listening socket could not be created */
    RTMP_ERR_SESSION_EXISTS = -88,   /* a session of this name exists */
    RTMP_ERR_MEMORY = -89,           /* an allocation failed */
    RTMP_ERR_META_DATA = -91,        /* onMetaData could not be built */
    RTMP_ERR_VIDEO_INFO = -92,       /* the video configuration was refused */
    RTMP_ERR_AUDIO_INFO = -93,       /* the audio configuration was refused */
    RTMP_ERR_NO_MEDIA_INFO = -97,    /* RtmpAddMediaInfo has not succeeded yet */
    RTMP_ERR_INVALID_ARGUMENT = -99, /* a bad argument */
    RTMP_ERR_UNSUPPORTED_MSG = -110, /* the peer sent a message that this library refuses */
    RTMP_ERR_STREAM_NOT_FOUND = -111 /* "play" named no live session */
};

/* --------------------------------------------------------------------------------------------- logging */

/* Levels are syslog priorities. Warnings go out at the error level. */
enum { RTMP_LOG_ERROR = 3, RTMP_LOG_INFO = 6 };

/**
 * RtmpLogFunction receives every log line. It is called from any thread, several at once, often with
 * library locks held: it must be thread-safe and must not call back into the library.
 *
 * @param context    the logger's LogContext
 * @param level      RTMP_LOG_ERROR or RTMP_LOG_INFO
 * @param format     printf format; the line ends in a newline
 * @param arguments  the format's arguments; consumed by the call
 */
typedef void (*RtmpLogFunction)(void *context, uint8_t level, const char *format, va_list arguments);

/** RtmpLogger is the host's. A logger with either field null drops every line. */
typedef struct RtmpLogger {
    RtmpLogFunction LogFunction;
    void *LogContext;
} RtmpLogger;

/* ---------------------------------------------------------------------------------------- message kinds */

/** RtmpMsgKind: the one numbering of received commands and events, and of generated messages. */
enum RtmpMsgKind {
    RTMP_MSG_RESULT = 0,
    RTMP_MSG_ERROR = 1,
    RTMP_MSG_CONNECT = 2,
    RTMP_MSG_ON_STATUS = 3,
    RTMP_MSG_CREATE_STREAM = 4,
    RTMP_MSG_ON_FC_PUBLISH = 7,
    RTMP_MSG_PLAY = 9,
    RTMP_MSG_PAUSE = 10,
    RTMP_MSG_ON_BW_DONE = 11,
    RTMP_MSG_PLAY_RESET = 12,
    RTMP_MSG_PLAY_START = 13,
    RTMP_MSG_PLAY_STOP = 14,
    RTMP_MSG_STREAM_NOT_FOUND = 15,
    RTMP_MSG_CONNECT_FAILED = 16,
    RTMP_MSG_DELETE_STREAM = 17,
    RTMP_MSG_SET_CHALLENGE = 18,
    RTMP_MSG_ON_CLIENT_LOGIN = 20,
    RTMP_MSG_CHECK_BW = 21,
    RTMP_MSG_USTREAM_PING = 22,
    RTMP_MSG_USTREAM_PONG = 23,
    RTMP_MSG_RECORD_STARTED = 30,
    RTMP_MSG_RECORD_ERROR = 31,
    RTMP_MSG_RECORD_READY = 32,
    RTMP_MSG_RECORD_TIMER_WARNING = 33,
    RTMP_MSG_RECORD_LIMIT_EXCEEDED = 34,
    RTMP_MSG_RECORD_SAVED = 35,
    RTMP_MSG_STREAM_BEGIN = 36,
    RTMP_MSG_SET_BUFFER_LENGTH = 39,
    RTMP_MSG_PING_REQUEST = 41,
    RTMP_MSG_PING_RESPONSE = 42,
    RTMP_MSG_SET_CHUNK_SIZE = 43,
    RTMP_MSG_ABORT = 44,
    RTMP_MSG_ACKNOWLEDGEMENT = 45,
    RTMP_MSG_WINDOW_ACK_SIZE = 46,
    RTMP_MSG_SET_PEER_BANDWIDTH = 47,
    RTMP_MSG_DATA_START = 48,
    RTMP_MSG_META_DATA = 49,
    RTMP_MSG_SAMPLE_ACCESS = 50,
    RTMP_MSG_VIDEO = 51,
    RTMP_MSG_AUDIO = 52,
    RTMP_MSG_UNSUPPORTED = 53,
    RTMP_MSG_CAPTION = 54,
    RTMP_MSG_SEEK = 55,            /* "seek" received; its notice */
    RTMP_MSG_PUBLISH = 56,         /* "publish" received; its refusal */
    RTMP_MSG_CONNECT_REJECTED = 57 /* the refusal of a "connect" */
};

/** RTMP message type ids (RTMP 1.0, 5.4 and 7.1). */
enum RtmpMsgType {
    RTMP_TYPE_SET_CHUNK_SIZE = 1,
    RTMP_TYPE_ABORT = 2,
    RTMP_TYPE_ACKNOWLEDGEMENT = 3,
    RTMP_TYPE_USER_CONTROL = 4,
    RTMP_TYPE_WINDOW_ACK_SIZE = 5,
    RTMP_TYPE_SET_PEER_BANDWIDTH = 6,
    RTMP_TYPE_AUDIO = 8,
    RTMP_TYPE_VIDEO = 9,
    RTMP_TYPE_AMF0_DATA = 18,
    RTMP_TYPE_AMF0_SHARED_OBJECT = 19,
    RTMP_TYPE_AMF0_COMMAND = 20,
    RTMP_TYPE_AGGREGATE = 22
};

/* ------------------------------------------------------------------------------------------------ AMF0 */

/** AmfString is a byte string: a name, a string value, a key to look up. Decoded ones borrow the input. */
typedef struct AmfString {
    union {
        char *data;
        char *StrData;
    };
    uint16_t len; /* bytes; no terminator is counted, and decoded strings have none */
} AmfString;

/** AmfObject heads a list of values; an all-zero head is an empty list. */
struct AmfObject {
    int32_t count;
    AmfObjProperty *first;
    AmfObjProperty *last;
};

/** AMF0 type markers that a value can carry. ECMA and strict arrays decode to AMF_OBJECT. */
enum AmfType {
    AMF_NUMBER = 0,
    AMF_BOOLEAN = 1,
    AMF_STRING = 2,
    AMF_OBJECT = 3,
    AMF_MOVIE_CLIP = 4,
    AMF_NULL = 5,
    AMF_UNDEFINED = 6,
    AMF_REFERENCE = 7,
    AMF_ECMA_ARRAY = 8,
    AMF_OBJECT_END = 9,
    AMF_STRICT_ARRAY = 10,
    AMF_DATE = 11,
    AMF_LONG_STRING = 12,
    AMF_UNSUPPORTED = 13,
    AMF_RECORD_SET = 14,
    AMF_XML_DOCUMENT = 15,
    AMF_TYPED_OBJECT = 16,
    AMF_AVM_PLUS = 17
};

/** AmfObjProperty is one value; which member of ObjVal counts follows from type. */
struct AmfObjProperty {
    AmfString name; /* empty for values without a name */
    uint32_t type;  /* AmfType */
    union {
        double number;    /* AMF_NUMBER, AMF_DATE */
        uint8_t boolean;  /* AMF_BOOLEAN: decoded values are stored inverted, 1 for a wire byte of 0 */
        AmfString StrObj; /* AMF_STRING */
        AmfObject object; /* AMF_OBJECT, AMF_ECMA_ARRAY */
    } ObjVal;
    int16_t dateTz; /* AMF_DATE */
    AmfObjProperty *next;
    AmfObjProperty *prev;
};

/* -------------------------------------------------------------------------------------------- messages */

/** RtmpRefusal: why the library refuses a message, and which part of it. */
typedef struct RtmpRefusal {
    uint32_t Reason; /* 0: not refused; the library's own numbering */
    AmfString What;  /* the command's name, or that of a property of it; borrowed from the payload */
} RtmpRefusal;

/** RtmpRecvPkt: one received message, assembled from chunks. Owned by its client's receive list. */
struct RtmpRecvPkt {
    uint32_t ChunkStreamId;
    uint32_t Complete;
    uint32_t ReceivedBytes;
    uint32_t HeaderType;      /* fmt of the chunk that began the message: 0 to 3 */
    uint32_t BasicHeaderForm; /* 0, 1, 2 for a basic header of 1, 2, 3 bytes */
    uint32_t MsgTypeId;
    uint8_t Timestamp[3];
    uint8_t TimestampDelta[3];
    uint8_t ExtendedTimestamp[4];
    uint8_t MsgStreamId[4]; /* as on the wire, little-endian */
    uint32_t MsgLength;
    uint8_t *PayloadData; /* MsgLength bytes once Complete is 1; before that ReceivedBytes bytes */
    union {
        AmfObject *Amf; /* commands (type 20): the decoded values, freed with the packet */
        struct {
            uint16_t EventType;
            uint32_t EventValue;
        } Event; /* user control messages (type 4) */
    } Result;
    RtmpRecvPkt *Next;
    RtmpRecvPkt *Prev;

    /* the library's own */
    RtmpRefusal Refusal;
    uint32_t PayloadRoom;   /* bytes of PayloadData; 0: a host made the packet, and all MsgLength are there */
    RtmpRecvPkt *Branch[2]; /* the receive list by chunk stream id: see RtmpClient.RecvPktRoot */
    RtmpRecvPkt **Place;    /* what points to it there; null: not in a list */
    uint8_t IsTimeExtended; /* type 3 chunks of it carry ExtendedTimestamp; see RTMP_PLAYERS_CHUNKS_IN */
};

/** RtmpSendPkt: one outgoing message. */
struct RtmpSendPkt {
    uint32_t ChunkStreamId;
    uint32_t MsgTypeId;
    uint32_t MsgKind;             /* RtmpMsgKind */
    uint64_t Timestamp;           /* ms since the client record was created */
    uint8_t HdrTimestamp[3];      /* big-endian; FF FF FF: see ExtTimestamp */
    uint8_t HdrTimestampDelta[3]; /* big-endian; FF FF FF: see ExtTimestampDelta */
    uint8_t ExtTimestamp[4];
    uint8_t ExtTimestampDelta[4];
    uint8_t MsgStreamId[4]; /* little-endian, as on the wire */
    uint32_t PayloadLength;
    uint8_t *PayloadData; /* freed with the packet, except for kinds 49, 51 and 52 */
    RtmpSendPkt *Next;
    RtmpSendPkt *Prev;

    /* the library's own */
    uint8_t Stored;  /* in a send list, which owns it */
    uint8_t HdrType; /* of the header it was sent with, 0xFF: none yet; read with RTMP_PLAYERS_CHUNKS_OUT */
};

/* --------------------------------------------------------------------------------------------- clients */

enum RtmpClientState {
    CLIENT_STATE_INIT = 0,
    CLIENT_STATE_HANDSHAKE_DONE = 2,
    CLIENT_STATE_CONNECT_DONE = 4,
    CLIENT_STATE_CREATESTREAM_DONE = 6,
    CLIENT_STATE_PLAY_DONE = 9,
    CLIENT_STATE_PAUSE_DONE = 10,
    CLIENT_STATE_REPLAY = 11,
    CLIENT_STATE_DELETESTREAM = 12,
    CLIENT_STATE_CLOSED = 13,
    CLIENT_STATE_EXIT = 14
};

enum { RTMP_CONN_RTMP = 0, RTMP_CONN_RTMPT = 1 };

/** RtmpClient: one connection, a player's or the host's own towards a streaming service. */
struct RtmpClient {
    char *ClientIP;
    uint32_t ConnType; /* RTMP_CONN_RTMP or RTMP_CONN_RTMPT */
    int Socket;
    void *Tls;     /* SSL* of the host over Socket, see SSL_read in host.h; null: plain TCP */
    uint16_t Port; /* network byte order */
    uint32_t State;
    RtmpThread ServeThread;
    uint32_t WindowAckSize;
    uint8_t PauseFlag; /* 1 resume requested, 0 pause requested */
    uint64_t CreateTime;
    uint32_t InChunkSize;
    char ClientId[12];
    char *StreamName;
    uint32_t ConnStreamId;
    uint32_t StreamId;
    uint32_t StatusChunkStreamId;
    uint32_t AudioChunkStreamId;
    uint32_t RecvPktCount;
    RtmpRecvPkt *RecvPktHead;
    RtmpRecvPkt *RecvPktTail;
    RtmpMutex RecvStrmListLock;
    uint32_t SendPktCount;
    RtmpSendPkt *SendPktHead;
    RtmpSendPkt *SendPktTail;
    RtmpMutex SendStrmListLock;
    RtmpSession *Session;
    RtmpServer *Server;
    RtmpClient *NextClient;
    RtmpClient *PrevClient;
    struct PublishCtx *PublishCtx; /* null for every player */

    /* the library's own */
    RtmpMutex WriteLock;    /* one message at a time on the socket; below every other lock */
    RtmpClient *NextMember; /* exact membership of the session, whatever the links above say */
    RtmpClient *PrevMember;
    uint8_t IsMember;
    uint8_t OutOfChain;       /* fell out of the forward chain of NextClient */
    uint8_t ThreadOwner;      /* RtmpThreadOwner: who ends the serve thread */
    uint8_t SocketClosed;     /* the number in Socket may already be somebody else's */
    uint8_t ToldToLeave;      /* reads for the client fail as interrupted ones do */
    uint8_t Awaited;          /* RtmpSessionDestroy waits for the client to leave */
    RtmpMutex TlsLock;        /* leaf: one call of Tls at a time; never held while the peer is waited for */
    RtmpRecvPkt *RecvPktRoot; /* the receive list as a tree, by the bits of the chunk stream id */
    uint8_t MessageState;     /* RtmpMessageState of the last message; guarded by WriteLock */
    uint8_t TlsWriteWaits;  /* a call of SSL_write must be repeated with the same bytes; guarded by TlsLock */
    uint32_t PlayerFlags;   /* RTMP_PLAYERS_... of its server when it was accepted; never changes */
    uint32_t BytesReceived; /* from the handshake on, modulo 2^32; the serve thread's */
    uint32_t BytesAcknowledged;
    uint8_t AwaitsKeyFrame;  /* gets no frames before the next key frame; guarded by WriteLock */
    uint32_t BreaksSeen;     /* RtmpSession.StreamBreaks up to which frames were sent; guarded by WriteLock */
    uint8_t IsTimelineBegun; /* since play or unpause; guarded by WriteLock */
    uint64_t TimelineStart;  /* what RtmpSession.FrameTime was where media time is 0; guarded by WriteLock */
    uint64_t TimelineTime;   /* media time of the last frame, and of replies; guarded by WriteLock */
    struct SteadyLine *Line; /* what leaves on the steady road; null: it does not take that road */
    uint64_t ReadsUntil;     /* ms: its reads then fail; 0: without limit. The serve thread's */
};

/**
 * PublishCtx: the answers of a streaming service. The host allocates it zero-filled and sets it in the
 * client record of its publishing connection; the library writes it on the thread that calls
 * ParseRequestMsg. Texts are NUL-terminated; longer ones are cut at the end of their field.
 */
struct PublishCtx {
    char ChallengeString[1024];     /* "setChallenge" */
    char SessionIdText[1024];       /* "setChallenge", decimal */
    double ResultTransactionId;     /* "_result" */
    char ErrorCode[1024];           /* "_error" */
    char ErrorDescription[1024];    /* "_error" */
    double ErrorTransactionId;      /* "_error" */
    char StatusLevel[1024];         /* "onStatus", "onClientLogin" */
    char StatusCode[1024];          /* "onStatus", "onClientLogin" */
    char StatusDescription[1024];   /* "onStatus", "onClientLogin" */
    double StatusTransactionId;     /* "onStatus" */
    uint64_t StatusHostContext[32]; /* the host's; its address is passed to rtmpStatusMessage */
};

/* ------------------------------------------------------------------------------------------------ media */

/** VideoMediaInfo: what RtmpAddMediaInfo is told of the video. Everything is copied. */
typedef struct VideoMediaInfo {
    uint32_t codecId;          /* 7: AVC (FLV, E.4.3.1) */
    uint32_t bitrate;          /* bit/s; 0: unknown */
    uint32_t opaque[3];        /* stored, never interpreted */
    int32_t configLen;         /* bytes, at least 1 */
    const uint8_t *configData; /* Annex B (ITU-T H.264) as RtmpAddMediaInfo says */
} VideoMediaInfo;

/** AudioMediaInfo: what RtmpAddMediaInfo is told of the audio. Everything is copied. */
typedef struct AudioMediaInfo {
    uint32_t codecId;          /* 10: AAC (FLV, E.4.2.1) */
    uint32_t opaque;           /* stored, never interpreted */
    int32_t configLen;         /* bytes, at least 1 */
    const uint8_t *configData; /* AudioSpecificConfig (ISO/IEC 14496-3) */
} AudioMediaInfo;

typedef struct VdCodecInfo {
    uint32_t height; /* pixels, whole macroblocks */
    uint32_t width;
    uint32_t bitrate; /* bit/s */
    uint32_t profileIdc;
    uint32_t constraintFlags;
    uint32_t levelIdc;
    uint32_t opaque[3];
    uint8_t *AvccBox; /* body of the AVC sequence header message */
    int32_t AvccBoxLen;
} VdCodecInfo;

typedef struct AdCodecInfo {
    uint32_t sampleRate; /* Hz */
    uint32_t channels;
    uint32_t opaque;
    uint8_t AacSeqHdr[4]; /* body of the AAC sequence header message */
    uint32_t AacSeqHdrLen;
} AdCodecInfo;

/** CodecInfo: a session's codecs and the bodies that every new player receives. */
struct CodecInfo {
    uint32_t VdCodecId;
    uint32_t VdConfigDataLen;
    uint8_t *VdConfigData;
    struct VdCodecInfo *VdCodecInfo;
    uint32_t AdCodecId;
    uint32_t AdConfigDataLen;
    uint8_t *AdConfigData;
    struct AdCodecInfo *AdCodecInfo;
    uint8_t *MetaData; /* body of the onMetaData message */
    uint32_t MetaDataLen;

    /* the library's own */
    CodecInfo *NextRetired; /* links RtmpSession.RetiredCodecInfo */
    uint8_t
        *PlayerMetaData; /* the well-formed bodies of RTMP_PLAYERS_DESCRIPTION; null: registered without */
    uint32_t PlayerMetaDataLen;
    uint8_t *PlayerAvccBox;
    uint32_t PlayerAvccBoxLen;
};

/** RtmpCaptionCtx: a session's closed captions. The host sets Enabled. */
typedef struct RtmpCaptionCtx {
    uint32_t Enabled; /* captions are processed only when this is not 0 */
    uint64_t Handle;  /* result of cc_gen_init */
    uint8_t Mode;     /* 0: SEI in every video frame; 1: a message to the first client */
    uint8_t Payload[10];
} RtmpCaptionCtx;

/* ------------------------------------------------------------------------------------ server and session */

enum { RTMP_MEDIA_AUDIO = 0, RTMP_MEDIA_VIDEO = 1, RTMP_MEDIA_BOTH = 2, RTMP_MEDIA_NONE = 3 };
enum { RTMP_SENDER_THREADED = 1 }; /* any other sender mode is the packet monitor */

/** RtmpSession: one named live stream. Owned by its server's session list. */
struct RtmpSession {
    char *Name;
    uint32_t MediaKind; /* RTMP_MEDIA_... */
    uint32_t MediaInfoAdded;
    struct CodecInfo *CodecInfo;
    int32_t ClientCount;
    RtmpClient *ClientListHead;
    RtmpClient *ClientListTail;
    RtmpMutex ClientListLock;
    RtmpServer *Server;
    RtmpCaptionCtx *CcGen;
    uint32_t SenderParam;
    uint8_t SenderFlag;
    uint32_t EncoderHandle;
    uint32_t StatsInterval; /* seconds between bandwidth reports of the packet monitor */
    uint32_t AudioQueueSize;
    uint32_t VideoQueueSize;
    uint64_t StartTime; /* ms, monotonic clock */
    uint32_t SenderMode;
    RtmpMonitor *Monitor;
    RtmpThreadedQueue *Queue;
    RtmpSession *NextSession;
    RtmpSession *PrevSession;

    /* the library's own */
    RtmpMutex MemberLock;      /* leaf: the links of both client lists */
    pthread_cond_t MemberLeft; /* a client left */
    RtmpClient *MemberHead;
    RtmpClient *MemberTail;
    struct RtmpPiece *Pieces; /* of the frame being sent; kept between frames */
    uint32_t PieceCapacity;
    struct CodecInfo *RetiredCodecInfo; /* earlier registrations: messages under way may use their bodies */
    RtmpThread FrameThread;             /* the thread that is in RtmpSendData; guarded by MemberLock */
    uint8_t FramesRefused;              /* the session is being destroyed; guarded by MemberLock */
    uint64_t FrameTime;          /* ms on the host's clock, of the frame being sent; LiveSessionListLock */
    uint32_t StreamBreaks;       /* how often pictures were dropped that no player got */
    struct SteadyStream *Stream; /* the session's finished messages on the steady road; null: not on it */
};

/** RtmpServer: listeners, sessions and logger of one library instance. */
struct RtmpServer {
    char IpAddress[32];
    uint32_t PeerBandwidth;
    uint32_t BaseBandwidth;
    uint32_t ChunkSize;
    int32_t ConfiguredChunkSize;
    uint16_t RtmpPort;
    int RtmpSocket;
    RtmpThread RtmpAcceptThread;
    uint16_t RtmptPort;
    int RtmptSocket;
    RtmpThread RtmptAcceptThread;
    RtmpThread AuxThread;
    uint8_t AuxThreadRunning;
    uint8_t AuxThreadCancel;
    int32_t LiveSessionCount;
    RtmpMutex LiveSessionListLock;
    RtmpSession *LiveSessionHead;
    RtmpSession *LiveSessionTail;
    RtmpLogger *Logger;

    /* the library's own */
    RtmpLogger LogGate;   /* finds Logger at the moment a line is written */
    int32_t LogReaders;   /* threads inside Logger right now */
    int32_t Holders;      /* the host, every serve thread, and clients that are being destroyed */
    RtmpMutex LinkLock;   /* leaf: the links of the session list, for whoever looks without the lock above */
    uint32_t PlayerFlags; /* RTMP_PLAYERS_... of connections to come */
    struct SteadyService *Service; /* set by RtmpServiceSettings, for good; null: not on the steady road */
};

#ifdef __cplusplus
}
#endif

#endif
