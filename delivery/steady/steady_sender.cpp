#include "delivery/steady/steady_sender.h"

#include "delivery/steady/finish_frame.h"
#include "delivery/steady/flush_thread.h"
#include "delivery/steady/host_told.h"
#include "delivery/steady/sender_record.h"
#include "delivery/steady/session_clock.h"
#include "delivery/steady/sound_order.h"
#include "instruments/encoder_feedback.h"
#include "media/access_unit.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/media.h"
#include "steady/flush_players.h"
#include "steady/message_ring.h"

namespace {

constexpr uint64_t kPicturesGoneMs = 5000; // without one for so long, players begin with sound

bool IsSoundOnly(const RtmpSession *session)
{
    return LoadShared(&session->MediaKind) == RTMP_MEDIA_AUDIO;
}

bool HasOwnThread(const RtmpSession *session)
{
    return LoadShared(&session->SenderMode) == RTMP_SENDER_THREADED;
}

RtmpFrame FrameOf(const RtmpSession *session, const uint8_t *data, int32_t length, uint64_t timestamp,
                  uint32_t mediaType)
{
    const bool isVideo = mediaType == RTMP_FRAME_VIDEO;
    RtmpFrame frame = {};
    frame.Data = data;
    frame.Length = length;
    frame.Kind = isVideo ? RTMP_MSG_VIDEO : RTMP_MSG_AUDIO;
    frame.Time = timestamp;
    const bool isStart = isVideo ? HasIdrSlice(data, length) != 0 : IsSoundOnly(session);
    frame.IsKeyFrame = isStart ? 1 : 0;
    frame.Payload = data;
    frame.PayloadLength = static_cast<uint32_t>(length);
    return frame;
}

// ---------------------------------------------------------------------------------------------- the order

// Returns the frame's time on the session's clock.
uint64_t TakeTime(SteadySender *sender, RtmpFrame *frame)
{
    const bool isPicture = frame->Kind == RTMP_MSG_VIDEO;
    const uint64_t time = SessionTimeOf(&sender->Clock, isPicture ? STEADY_VIDEO : STEADY_AUDIO, frame->Time);
    if (isPicture && sender->HasPictures != 0) {
        frame->TimestampDelta = time - sender->LastPicture;
    }
    if (isPicture || sender->LastPicture == 0) {
        sender->LastPicture = time;
        sender->HasPictures = isPicture ? 1 : 0;
    }
    return time;
}

// Sound that leaves by itself, for long, is what newcomers begin with.
void PlaceSoundAlone(SteadyStream *stream, FinishedMessage *message)
{
    if (message->Time > stream->Sender->LastPicture + kPicturesGoneMs) {
        message->IsStart = 1;
        stream->Sender->BeganWithSound = 1;
    }
    PlaceMessage(stream, message, message->Time);
}

// PlaceSound and PlacePicture return whether there is something to write.
bool PlaceSound(SteadyStream *stream, FinishedMessage *message)
{
    if (IsSoundOnly(stream->Session)) {
        PlaceMessage(stream, message, message->Time);
        return true;
    }
    ParkedSound *sound = &stream->Sender->Sound;
    const uint32_t waitMs = stream->Service->Limits.SoundWaitMilliseconds;
    ParkSound(sound, message);
    bool isDue = false;
    for (FinishedMessage *due = TakeOverdueSound(sound, waitMs); due != nullptr;
         due = TakeOverdueSound(sound, waitMs)) {
        PlaceSoundAlone(stream, due);
        isDue = true;
    }
    return isDue;
}

// Who began with sound needs a key frame when there are pictures again.
void NotePicture(SteadyStream *stream, bool isStart)
{
    SteadySender *sender = stream->Sender;
    if (isStart) {
        sender->BeganWithSound = 0;
    } else if (sender->BeganWithSound != 0) {
        StoreShared(&stream->KeyFrameWanted, uint8_t{1});
    }
}

bool PlacePicture(SteadyStream *stream, FinishedMessage *message)
{
    ParkedSound *sound = &stream->Sender->Sound;
    for (FinishedMessage *due = TakeSoundUpTo(sound, message->Time); due != nullptr;
         due = TakeSoundUpTo(sound, message->Time)) {
        PlaceMessage(stream, due, due->Time);
    }
    const bool isStart = message->IsStart != 0;
    PlaceMessage(stream, message, message->Time);
    NotePicture(stream, isStart);
    return true;
}

// -------------------------------------------------------------------------------------------- the way out

// Without players nothing is written; what the ring need not hold any more leaves it.
int FlushDue(SteadyStream *stream, bool anyConnected)
{
    if (!anyConnected || !HasOwnThread(stream->Session)) {
        FlushPlayers(stream, nullptr);
        return 0;
    }
    if (EnsureFlushThread(stream) != 0) {
        RtmpLogPrint(LoggerOf(stream->Session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot create the session's sender thread\n", "RtmpSendData");
        return RTMP_FAILED;
    }
    WakeFlushThread(stream->Sender);
    return 0;
}

int SendOn(SteadyStream *stream, const RtmpFrame *frame, FinishedMessage *message)
{
    const bool anyConnected = LoadShared(&stream->Session->ClientCount) > 0;
    const uint64_t time = message->Time; // the message is the ring's as soon as it is placed
    const bool isDue =
        message->Kind == STEADY_VIDEO ? PlacePicture(stream, message) : PlaceSound(stream, message);
    const int result = isDue ? FlushDue(stream, anyConnected) : 0;
    if (!anyConnected) {
        return RTMP_ERR_NO_CLIENT;
    }
    FollowFrame(stream, frame, time);
    TellHost(stream);
    return result;
}

} // namespace

int NewSteadySender(SteadyStream *stream)
{
    stream->Sender = NewRecord<SteadySender>();
    if (stream->Sender == nullptr) {
        return -1;
    }
    (void)sem_init(&stream->Sender->Wake, 0, 0); // of valid arguments: cannot fail
    return 0;
}

void FreeSteadySender(SteadyStream *stream)
{
    SteadySender *sender = stream->Sender;
    if (sender != nullptr) {
        EndFlushThread(sender);
        DropSound(stream, &sender->Sound);
        (void)sem_destroy(&sender->Wake); // nobody waits for it
        free(sender);
        stream->Sender = nullptr;
    }
}

int SendDataSteadily(RtmpSession *session, const uint8_t *data, int32_t length, uint64_t timestamp,
                     uint32_t mediaType)
{
    WITHOUT_CANCEL int restore = ForbidCancel(); // a line would be left in the middle of a message
    SteadyStream *stream = session->Stream;
    if (stream->Sender->Closed != 0) {
        return 0;
    }
    RtmpFrame frame = FrameOf(session, data, length, timestamp, mediaType);
    const uint64_t time = TakeTime(stream->Sender, &frame);
    FinishedMessage *message = FinishFrame(stream, &frame);
    if (message == nullptr) {
        return RTMP_FAILED;
    }
    message->Time = time;
    return SendOn(stream, &frame, message);
}

void StopSteadySender(SteadyStream *stream)
{
    EndFlushThread(stream->Sender);
}

void ResetSteadySender(SteadyStream *stream, int closed)
{
    SteadySender *sender = stream->Sender;
    EndFlushThread(sender);
    DropSound(stream, &sender->Sound);
    EmptyRing(stream);
    ForgetTiming(&sender->Clock);
    sender->HasPictures = 0;
    sender->PicturesBehind = 0;
    sender->IsAnyCounted = 0;
    sender->BytesTaken = 0;
    sender->Closed = static_cast<uint8_t>(closed);
    if (stream->Session->Queue != nullptr) {
        ResetInstruments(stream->Session->Queue);
    }
}
