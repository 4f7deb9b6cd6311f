#include "delivery/write/fan_out.h"

#include "delivery/write/captions.h"
#include "delivery/write/frame.h"
#include "delivery/write/key_frame.h"
#include "delivery/write/pieces.h"
#include "delivery/write/socket_writer.h"
#include "media/access_unit.h"
#include "media/flv_tag.h"
#include "media/h264.h"
#include "message/chunk_header.h"
#include "message/generate.h"
#include "message/media.h"
#include "message/send_list.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

// A frame cut up once for all clients: piece 0 is each client's chunk header, the prefix follows.
struct CutFrame {
    RtmpFrame *Frame;
    RtmpPiece *Pieces;
    uint32_t Count;
    uint32_t PrefixCount; // pieces 0 to here hold header and prefix
    const RtmpSession *Session;
};

// WriteTagHeader begins the prefix. -1: no header (logged).
int WriteTagHeader(RtmpSession *session, RtmpFrame *frame)
{
    const uint8_t noNal = 0;
    const bool hasNal = frame->Length > kNalLengthSize;
    int length;
    if (frame->Kind == RTMP_MSG_VIDEO) {
        length = GenerateFlvH264Hdr(session, hasNal ? frame->Data + kNalLengthSize : &noNal,
                                    hasNal ? static_cast<uint32_t>(frame->Length - kNalLengthSize) : 0,
                                    static_cast<uint32_t>(frame->TimestampDelta), frame->Prefix, 0);
    } else {
        length = GenerateFlvAACHdr(session, frame->Prefix, 0);
    }
    if (length < 0) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     frame->Kind == RTMP_MSG_VIDEO ? "ERROR: %s: FLV Video tag generation failed\n"
                                                   : "ERROR: %s: FLV Audio tag generation failed\n",
                     kFanOut);
        return -1;
    }
    frame->ExactTag = frame->Prefix[0];
    frame->StandardTag = frame->Kind == RTMP_MSG_VIDEO ? FlvVideoTag(frame->IsKeyFrame) : frame->ExactTag;
    frame->HeaderLength = static_cast<uint32_t>(length);
    frame->PrefixLength = frame->HeaderLength;
    return 0;
}

// PiecesOf returns the session's piece list with room for `count`. It is kept between frames, so that steady
// streaming allocates nothing, and freed with the session.
RtmpPiece *PiecesOf(RtmpSession *session, uint64_t count)
{
    if (count > session->PieceCapacity) {
        RtmpPiece *pieces = NewArray<RtmpPiece>(count);
        if (pieces == nullptr) {
            return nullptr;
        }
        free(session->Pieces);
        session->Pieces = pieces;
        session->PieceCapacity = static_cast<uint32_t>(count);
    }
    return session->Pieces;
}

int CutUp(RtmpSession *session, RtmpFrame *frame, CutFrame *cut)
{
    const uint64_t total = static_cast<uint64_t>(frame->PrefixLength) + frame->PayloadLength;
    const uint32_t chunkSize = OutgoingChunkSize(session->Server);
    RtmpPiece *pieces = PiecesOf(session, PiecesFor(total, chunkSize, 2));
    if (pieces == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to chunks\n", kFanOut);
        return -1;
    }
    PieceCutter cutter = CutInto(pieces, chunkSize);
    CutPart(&cutter, frame->Prefix, frame->PrefixLength);
    const uint32_t prefixCount = cutter.Count;
    CutPart(&cutter, frame->Payload, frame->PayloadLength);
    *cut = {frame, pieces, cutter.Count, prefixCount, session};
    return 0;
}

int WriteFromMemory(RtmpClient *client, const CutFrame *cut, const RtmpSendPkt *message)
{
    // Audio only ever leaves in front of a video frame: the kernel may put both into one packet, which saves
    // the player a wake-up and the sender most of a write.
    const enum RtmpFollowing following =
        cut->Frame->Kind == RTMP_MSG_AUDIO ? MESSAGE_FOLLOWS : NOTHING_FOLLOWS;
    if (SendMessage(client, cut->Pieces, cut->Count, message, following) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Sending data message to client {%p} failed\n", kFanOut,
                     static_cast<void *>(client));
        return -1;
    }
    return 0;
}

int WriteFromFile(RtmpClient *client, const CutFrame *cut, const RtmpSendPkt *message)
{
    const enum RtmpFollowing following = cut->Count > cut->PrefixCount ? REST_FOLLOWS : NOTHING_FOLLOWS;
    if (SendMessage(client, cut->Pieces, cut->PrefixCount, message, following) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Sending data message to client {%p} failed (zero copy)\n", kFanOut,
                     static_cast<void *>(client));
        return -1;
    }
    if (SendFile(client, cut->Pieces + cut->PrefixCount, cut->Count - cut->PrefixCount, message,
                 cut->Frame->Fd, cut->Frame->MapBase) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Sending data file to client {%p} failed (zero copy)\n", kFanOut,
                     static_cast<void *>(client));
        return -1;
    }
    return 0;
}

// StoreReference makes a copy of the message the reference of its chunk stream. Null: no memory, or the list
// could not be locked.
RtmpSendPkt *StoreReference(RtmpClient *client, const RtmpSendPkt *message)
{
    RtmpSendPkt *copy = NewRecord<RtmpSendPkt>();
    if (copy == nullptr) {
        return nullptr;
    }
    *copy = *message;
    copy->PayloadData = nullptr; // only header fields are ever read again; the frame is the host's
    if (AddSendPkt(client, copy) != 0) {
        FreeSendPkt(copy);
        return nullptr;
    }
    return copy;
}

// A reference that nobody has been sent is forgotten on every way out, so that the next frame starts with a
// full header again.
struct NewReference {
    RtmpClient *Client;
    RtmpSendPkt *Stored; // null: there was one, or the frame is out
};

void ForgetReference(NewReference *reference)
{
    if (reference->Stored != nullptr) {
        (void)RemoveSendPkt(reference->Client, reference->Stored);
    }
}

#define FORGET_AT_EXIT __attribute__((cleanup(ForgetReference)))

// WriteFrame writes header and body of a message whose reference is settled.
int WriteFrame(RtmpClient *client, const CutFrame *cut, RtmpSendPkt *message, int headerType)
{
    uint8_t headerBytes[RTMP_CHUNK_HDR_MAX] = {};
    RtmpChunkHdr header = {0, headerBytes};
    if (FillChunkHdrFor(client, message, headerType, &header) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Generation of chunk header failed\n", kFanOut);
        return -1;
    }
    cut->Pieces[0] = {header.Data, header.Length, 0};
    // TLS has no file path: the bytes must pass through the host's TLS, and they lie in memory as well.
    const bool fromFile = cut->Frame->Fd >= 1 && client->Tls == nullptr;
    return fromFile ? WriteFromFile(client, cut, message) : WriteFromMemory(client, cut, message);
}

// FillFrameMessage logs as the generator of media messages.
int FillFrameMessage(RtmpClient *client, const RtmpFrame *frame, RtmpSendPkt *message)
{
    const uint32_t mediaLength = frame->PrefixLength - frame->HeaderLength + frame->PayloadLength;
    const int kind = static_cast<int>(frame->Kind);
    if (!Allows(client, RULE_TIMELINE)) {
        return FillRtmpMediaMsg(client, kind, mediaLength, frame->Payload, frame->TimestampDelta, message);
    }
    const RtmpFrameTime time = {frame->Time, frame->TimestampDelta, frame->LeadsTimeline};
    return FillTimelineMediaMsg(client, kind, mediaLength, frame->Payload, &time, message);
}

// WriteFrameTo sends the frame as the next message to a client whose WriteLock is held.
int WriteFrameTo(RtmpClient *client, const CutFrame *cut)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    RtmpFrame *frame = cut->Frame;
    // Clients are served one after the other: the prefix is this one's until its write is done.
    frame->Prefix[0] = Allows(client, RULE_KEY_FRAME_TAG) ? frame->StandardTag : frame->ExactTag;

    RtmpSendPkt message = {};
    if (FillFrameMessage(client, frame, &message) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate rtmp data message of client : %p\n",
                     kFanOut, static_cast<void *>(client));
        return -1;
    }
    RtmpSendPkt *previous = GetSendPktFromList(client, static_cast<int>(message.ChunkStreamId));
    FORGET_AT_EXIT NewReference added = {client, nullptr};
    if (previous == nullptr) {
        added.Stored = StoreReference(client, &message);
        if (added.Stored == nullptr) {
            RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot add send packet in list\n", kFanOut);
            return -1;
        }
    }
    const int headerType = ChooseHdrType(client, &message, previous);
    if (WriteFrame(client, cut, &message, headerType) != 0) {
        return -1;
    }
    (previous == nullptr ? added.Stored : previous)->HdrType = static_cast<uint8_t>(headerType);
    added.Stored = nullptr;
    return 0;
}

// SendFrameTo sends the frame to one playing client, as one message that nothing interrupts.
int SendFrameTo(RtmpClient *client, const CutFrame *cut)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    if (ClientStateOf(client) != CLIENT_STATE_PLAY_DONE) {
        return 0; // paused while this thread waited for the lock: no frame comes behind the answer
    }
    if (client->MessageState == MESSAGE_CUT) {
        return 0; // the connection has been ended, and its thread is leaving
    }
    if (!MayHaveFrame(client, cut->Session, cut->Frame)) {
        return 0;
    }
    const int result = WriteFrameTo(client, cut);
    if (result != 0) {
        client->AwaitsKeyFrame = 1; // what follows may build on the frame that it missed
    }
    return result;
}

// A picture that nobody gets. What is lost of the sound is only missed.
void NoteLostFrame(RtmpSession *session, const RtmpFrame *frame)
{
    if (frame->Kind == RTMP_MSG_VIDEO) {
        NoteStreamBreak(session);
    }
}

int SendToPlayingClients(RtmpSession *session, const CutFrame *cut)
{
    if (RtmpMutexLockOrCancel(&session->ClientListLock) != 0) {
        NoteLostFrame(session, cut->Frame);
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot lock client list\n",
                     kFanOut);
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &session->ClientListLock;
    int result = 0;
    for (RtmpClient *client = session->ClientListHead; client != nullptr; client = client->NextClient) {
        if (ClientStateOf(client) == CLIENT_STATE_PLAY_DONE && SendFrameTo(client, cut) != 0) {
            // KEPT: the client stays connected and is sent the next frame, too. Required. It never stops the
            // others.
            result = -1;
        }
    }
    return result;
}

int SendFrame(RtmpSession *session, RtmpFrame *frame)
{
    if (WriteTagHeader(session, frame) != 0) {
        NoteLostFrame(session, frame);
        return -1;
    }
    InsertCaptions(session, frame);
    CutFrame cut;
    if (CutUp(session, frame, &cut) != 0) {
        NoteLostFrame(session, frame);
        return -1;
    }
    return SendToPlayingClients(session, &cut);
}

} // namespace

int SendMsgToConnectedClients(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                              uint64_t mapBase, uint64_t timestampDelta, uint32_t kind)
{
    RtmpFrame frame;
    frame.Data = data;
    frame.Length = length;
    frame.Fd = fd;
    frame.MapBase = mapBase;
    frame.TimestampDelta = timestampDelta;
    frame.Kind = kind;
    frame.Time = session->FrameTime;
    frame.IsKeyFrame = kind == RTMP_MSG_VIDEO && HasIdrSlice(data, length) != 0 ? 1 : 0;
    frame.LeadsTimeline =
        kind == RTMP_MSG_VIDEO || LoadShared(&session->MediaKind) == RTMP_MEDIA_AUDIO ? 1 : 0;
    frame.Payload = data;
    frame.PayloadLength = static_cast<uint32_t>(length);
    return SendFrame(session, &frame);
}
