// The records of the steady road: a session's ring of finished messages, a connection's place in it, and what
// a server keeps of all its connections.
//
// A message is finished once, as the bytes that go on the wire, and is the same for every player: its header
// (RTMP 1.0, 5.3.1.2, type 1) tells it from the message before it on its chunk stream. Only a player that did
// not get that one is sent a header of its own in place of it.
//
// Locks, in this order: SteadyService.Lock or SteadyStream.PlayersLock; RtmpClient.WriteLock;
// SteadyStream.RingLock. Nothing waits for a peer, or for a host function, under any of them.
#pragma once

#include "rtmpcast/service.h"
#include "rtmpcast/types.h"

extern "C" {

typedef struct FinishedMessage FinishedMessage;
typedef struct SteadyLine SteadyLine;
typedef struct SteadyReply SteadyReply;
typedef struct SteadyService SteadyService;
typedef struct SteadyStream SteadyStream;

enum SteadyKind { STEADY_VIDEO = 0, STEADY_AUDIO = 1, STEADY_KINDS = 2 };

constexpr uint64_t kNoMessage = UINT64_MAX;
constexpr uint32_t kSharedHeaderSize = 8; // basic header of one byte, type 1 message header
constexpr uint32_t kOwnHeaderMost = 12;   // basic header of one byte, type 0 message header
constexpr uint32_t kPoolClasses = 16;     // of message sizes, each twice the one before

struct FinishedMessage {
    FinishedMessage *NextFree; // in the pool; of sound that is parked, the one behind it
    uint32_t References;       // shared: the ring's, and those of lines that are writing it
    uint32_t Class;            // of its size
    uint32_t Length;           // of Bytes: shared header, body, continuation headers
    uint32_t BodyLength;       // what the header says (RTMP 1.0, 5.3.1.2.1)
    uint64_t Number;
    uint64_t PreviousOfKind; // the message before it on its chunk stream; kNoMessage: none
    uint64_t Pictures;       // of the session, up to and with this message
    uint64_t Time;           // ms of the session's clock
    uint8_t Kind;            // SteadyKind
    uint8_t IsStart;         // a player may begin here: a key frame, or sound where there are no pictures
    uint8_t *Bytes;
};

// A session on the steady road.
struct SteadyStream {
    SteadyService *Service;
    RtmpSession *Session;

    // The ring holds the messages First to Next - 1. Guarded by RingLock.
    RtmpMutex RingLock;
    FinishedMessage **Slots; // a power of two
    uint32_t SlotCount;
    uint64_t First;
    uint64_t Next;
    uint64_t Start; // the newest message that a player may begin with; kNoMessage: none is held
    uint64_t Bytes;
    uint64_t LastOfKind[STEADY_KINDS]; // numbers; kNoMessage: none yet
    uint64_t TimeOfKind[STEADY_KINDS]; // of those
    uint64_t Pictures;
    FinishedMessage *Free[kPoolClasses]; // buffers to be used again
    uint64_t FreeBytes;

    // Who gets the messages. Guarded by PlayersLock.
    RtmpMutex PlayersLock;
    SteadyLine *FirstPlayer;
    SteadyLine *LastPlayer;
    uint32_t ViewersInAll;
    uint64_t GoneBytes; // of those that have left
    uint64_t GoneFrames;
    uint64_t GoneDropped;
    uint64_t Flushed; // the number of the first message that no SharedWrite has had

    uint8_t KeyFrameWanted;      // shared: a player waits for one that the ring does not have
    uint64_t DroppedInAll;       // shared: frames that players which fell behind did not get
    struct SteadySender *Sender; // delivery/steady: how frames get into the ring, and out of it
};

// An answer to a command, waiting to leave. Its bytes stay where they are until they are out.
struct SteadyReply {
    SteadyReply *Next;
    uint32_t Length;
    uint8_t *Bytes; // behind the record
};

// What a connection has half sent: an answer, or a message of the ring. Nothing comes in between.
typedef struct SteadyHalf {
    SteadyReply *Reply;       // owned; null: none
    FinishedMessage *Message; // referenced; null: none
    uint8_t Header[kOwnHeaderMost];
    uint32_t HeaderLength; // 0: the message goes with its shared header
    uint32_t Out;          // bytes of header and body that are out
} SteadyHalf;

enum SteadyWait {
    STEADY_WAITS_FOR_NOTHING = 0,
    STEADY_WAITS_FOR_HANDSHAKE = 1,
    STEADY_WAITS_FOR_PLAY = 2,
    STEADY_WAITS_IN_TUNNEL = 3
};

// Why the library has ended a connection.
enum SteadyEnd {
    STEADY_GOES_ON = 0,
    STEADY_END_HANDSHAKE_LATE = 1,
    STEADY_END_PLAY_LATE = 2,
    STEADY_END_STALLED = 3,
    STEADY_END_REPLIES = 4, // more answers wait for it than may
    STEADY_END_BROKEN = 5,  // a write failed
    STEADY_END_TUNNEL = 6,
    STEADY_END_SERVER = 7,  // the server is being destroyed
    STEADY_END_REFUSED = 8, // what it sent, or the host, ended it: its answers still leave
    STEADY_END_SESSION = 9, // its session is being destroyed
    STEADY_END_ASSEMBLY = 10,
    STEADY_END_CHUNK_STREAMS = 11,
    STEADY_ENDS = 12
};

// Where a player is. LastOfKind: the number of the last message sent, or one of these two.
constexpr uint64_t kOtherMessage = UINT64_MAX - 1; // one that the next message is not told from

typedef struct SteadyPlace {
    uint64_t Next;                     // number of the next message; kNoMessage: it begins anew
    uint64_t LastOfKind[STEADY_KINDS]; // kNoMessage: none since "play"
    uint64_t TimeOfKind[STEADY_KINDS]; // of the last messages, on the player's timeline
    uint64_t Base;                     // the session's clock where the player's timeline is 0
    uint8_t IsBased;                   // 0: the next message sets Base
    uint64_t Pictures;                 // FinishedMessage.Pictures of the last message
    uint64_t Time;                     // FinishedMessage.Time of it
} SteadyPlace;

// What LookAtLine knows of a player.
typedef struct SteadyLook {
    uint64_t PictureBytes;     // of pictures that are out
    uint64_t PictureBytesSeen; // at the last look, here and below
    uint64_t BytesSeen;        // of everything
    uint64_t Begun;            // ms: when it began anew
    uint32_t PicturesBehind;   // when it last took something
    uint8_t HasCaughtUp;       // since Begun
} SteadyLook;

// A connection on the steady road.
struct SteadyLine {
    RtmpClient *Client;
    SteadyService *Service;
    uint8_t OwnsSocket;  // accepted by the library, which closes it
    uint8_t SpeaksTls;   // accepted by the listener of TLS
    uint8_t IsPublisher; // shared: its host is told of a service that takes nothing, and connects again
    uint32_t Address;    // the peer's, network byte order
    uint64_t Since;      // ms of RtmpGetSystemTime

    // All lines of a server. Guarded by SteadyService.Lock.
    SteadyLine *NextLine;
    SteadyLine *PrevLine;

    // A session's players. Guarded by PlayersLock of the stream.
    SteadyStream *Stream; // null: none
    SteadyLine *NextPlayer;
    SteadyLine *PrevPlayer;

    // The way out. Guarded by the client's WriteLock.
    SteadyHalf Half;
    SteadyReply *FirstReply;
    SteadyReply *LastReply;
    uint32_t ReplyBytes; // waiting
    SteadyPlace Place;
    uint64_t Joined;       // messages in front of this one are nothing to begin with
    uint8_t WantsRoom;     // the socket takes nothing; the keeper goes on. It peeks without the lock
    uint64_t LastProgress; // ms: something left, or the socket was not full yet
    SteadyLook Look;

    // Figures. Written under the WriteLock, shared.
    uint64_t BytesOut;
    uint64_t FramesOut;
    uint64_t FramesDropped;
    uint32_t Restarts;

    // Shared with the keeper.
    uint64_t Deadline; // ms; 0: none
    uint8_t WaitsFor;  // SteadyWait: what the deadline is for
    uint8_t End;       // SteadyEnd

    // What the host is told of it. The serve thread's.
    uint8_t IsAnnounced; // the host has been told of it, and not yet that it left
    char *App;           // of "connect"; heap copies, null: nothing yet
    char *TcUrl;
};

// A server on the steady road.
struct SteadyService {
    RtmpServer *Server;
    RtmpServiceLimits Limits; // defaults filled in

    RtmpMutex Lock;
    pthread_cond_t LineLeft;
    SteadyLine *FirstLine;
    SteadyLine *LastLine;
    uint32_t LineCount;
    uint32_t AcceptedCount; // connections that own their socket, until it is closed
    uint8_t Closing;        // nobody is admitted any more

    int Epoll; // lines that want room, and Wake
    int Wake;  // eventfd: the keeper looks at its lines
    RtmpThread Keeper;
    uint8_t KeeperEnds; // shared

    int TlsSocket; // -1: none
    RtmpThread TlsAcceptThread;
};
}
