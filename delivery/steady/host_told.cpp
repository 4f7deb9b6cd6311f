#include "delivery/steady/host_told.h"

#include "instruments/bandwidth_monitor.h"
#include "instruments/debug_trace.h"
#include "instruments/encoder_feedback.h"
#include "instruments/monitor_stats.h"
#include "net/atomic.h"
#include "net/host_call.h"

#include <stdio.h>

namespace {

constexpr uint64_t kTellEveryMs = 1000;

void TraceDrops(RtmpThreadedQueue *queue, uint64_t dropped)
{
    if (queue->Debug != nullptr) {
        StoreShared(&queue->Debug->Dropped, static_cast<uint32_t>(dropped));
    }
}

// The exact senders' ring is full of what the slowest player has not taken, and they measure what it has let
// them send to all. So here the queue is what the slowest player that makes progress is behind, and the rate
// is that of the pictures which it takes: what the encoder may send so that it follows.
void FollowPicture(SteadyStream *stream, RtmpThreadedQueue *queue, uint64_t time)
{
    SteadySender *sender = stream->Sender;
    const uint32_t behind = LoadShared(&sender->PicturesBehind);
    const int32_t queued = behind > INT32_MAX ? INT32_MAX : static_cast<int32_t>(behind);
    const uint64_t bytes = __atomic_exchange_n(&sender->BytesTaken, uint64_t{0}, __ATOMIC_ACQ_REL);
    if (LoadShared(&sender->IsAnyCounted) != 0) {
        (void)RtmpQueueBWMAdd(queue->Bwm, queue->Session,
                              static_cast<uint32_t>(bytes < INT32_MAX ? bytes : INT32_MAX)); // null is fine
    }
    FollowVideo(queue, queued, queued >= queue->VideoBuffer->Size, time);
    TraceDrops(queue, LoadShared(&stream->DroppedInAll));
    // The trace is of pictures that have left: of the one that the slowest player has taken.
    const uint64_t taken = time - uint64_t{behind} * sender->Clock.StepOfKind[STEADY_VIDEO];
    const RtmpQueueTime flush = {0, LoadShared(&sender->FlushMicros)};
    (void)RtmpQueueDebugLog(queue, taken, queued, {}, flush); // without a trace nothing is written
}

// True once in a while, from the first time on.
bool IsTimeTo(uint64_t *last)
{
    const uint64_t now = RtmpGetSystemTime();
    if (*last != 0 && now - *last < kTellEveryMs) {
        return false;
    }
    *last = now;
    return true;
}

void TellOfDrops(SteadyStream *stream)
{
    SteadySender *sender = stream->Sender;
    const uint64_t dropped = LoadShared(&stream->DroppedInAll);
    if (dropped == sender->DropsTold || !IsTimeTo(&sender->DropsToldAt)) {
        return;
    }
    sender->DropsTold = dropped;
    char text[24];
    snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(dropped));
    ReportStatus(stream->Session, "rtmpDroppedFrames", text, "Frames that slow players missed");
}

void AskForKeyFrame(SteadyStream *stream)
{
    const bool isWanted = LoadShared(&stream->KeyFrameWanted) != 0 &&
                          LoadShared(&stream->Session->MediaKind) != RTMP_MEDIA_AUDIO;
    if (isWanted && IsTimeTo(&stream->Sender->KeyFrameAsked)) {
        WITHOUT_CANCEL int restore = ForbidCancel();
        rtmpKeyFrameWanted(stream->Session);
    }
}

} // namespace

void FollowFrame(SteadyStream *stream, const RtmpFrame *frame, uint64_t time)
{
    RtmpSession *session = stream->Session;
    const bool isPicture = frame->Kind == RTMP_MSG_VIDEO;
    if (session->Queue != nullptr) {
        TraceFrame(session->Queue, time);
    }
    if (session->Queue != nullptr && isPicture) {
        FollowPicture(stream, session->Queue, time);
    } else if (session->Monitor != nullptr && isPicture) {
        CountFrame(session->Monitor, static_cast<uint32_t>(frame->Length));
    }
}

void TellHost(SteadyStream *stream)
{
    TellOfDrops(stream);
    AskForKeyFrame(stream);
}
