#include "delivery/senders/sender_thread.h"

#include "delivery/senders/frame_order.h"
#include "delivery/write/fan_out.h"
#include "delivery/write/key_frame.h"
#include "instruments/bandwidth_monitor.h"
#include "instruments/debug_trace.h"
#include "instruments/ring.h"
#include "instruments/sender_clock.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>

namespace {

void RecordEnd(RtmpThreadedQueue **queue)
{
    StoreShared(&(*queue)->ThreadRunning, uint8_t{0});
}

// RECORD_END_AT_EXIT RtmpThreadedQueue *ending = queue; before any other guard, so that it acts last.
#define RECORD_END_AT_EXIT __attribute__((cleanup(RecordEnd), unused))

const char *PolicyName(int policy)
{
    switch (policy) {
    case SCHED_OTHER:
        return "SCHED_OTHER";
    case SCHED_FIFO:
        return "SCHED_FIFO";
    case SCHED_RR:
        return "SCHED_RR";
    default:
        return "???";
    }
}

void LogStart(const RtmpThreadedQueue *queue, const char *caller)
{
    int policy = SCHED_OTHER;
    struct sched_param parameters = {};
    pthread_getschedparam(pthread_self(), &policy, &parameters);
    RtmpLogPrint(LoggerOf(queue->Session->Server), RTMP_LOG_INFO, "INFO: %s :Sender Thread Started: %s:%d\n",
                 caller, PolicyName(policy), parameters.sched_priority);
}

void WaitForItem(RtmpQueueBuffer *ring)
{
    while (sem_wait(&ring->Sem) != 0 && errno == EINTR) {
    }
}

// Milliseconds since the previous item of the kind; 0 when there was none.
uint64_t DeltaTo(const RtmpQueueBufferItem *item, uint64_t previous)
{
    return previous == 0 ? 0 : item->Timestamp - previous;
}

int SendItem(const RtmpThreadedQueue *queue, const RtmpQueueBufferItem *item, uint64_t delta)
{
    queue->Session->FrameTime = item->Timestamp;
    return SendMsgToConnectedClients(queue->Session, item->Data, item->Length, item->Fd, item->MapBase, delta,
                                     item->Type);
}

// Nobody waits for the audio ring's posts; they are taken off one by one so that a flush has few to take.
void ReleaseAudio(RtmpQueueBuffer *ring)
{
    (void)RtmpQueueBufferRelease(ring); // a flush may have emptied it meanwhile
    sem_trywait(&ring->Sem);
}

enum AudioResult { AUDIO_SENT, AUDIO_NOT_DUE, AUDIO_FAILED };

// The video frame in front of which audio goes.
struct NextVideo {
    uint64_t Delta;
    uint64_t Time; // on the host's clock
    bool IsHostsOrder;
};

// An audio frame is due when it would be stamped no later than the video frame.
bool IsDue(const RtmpThreadedQueue *queue, const RtmpQueueBufferItem *audio, const NextVideo *video)
{
    if (video->IsHostsOrder) {
        return IsSoundDue(audio->Timestamp, video->Time);
    }
    return LoadShared(&queue->LastAudioRtmpTs) + DeltaTo(audio, queue->LastAudioTs) <=
           LoadShared(&queue->LastVideoRtmpTs) + video->Delta;
}

AudioResult SendNextDueAudio(RtmpThreadedQueue *queue, const NextVideo *video)
{
    if (RtmpMutexLock(&queue->AudioBuffer->Lock) != 0) {
        return AUDIO_FAILED;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &queue->AudioBuffer->Lock;
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(queue->AudioBuffer);
    if (item == nullptr) {
        return AUDIO_NOT_DUE;
    }
    if (!IsDue(queue, item, video)) {
        return AUDIO_NOT_DUE;
    }
    const uint64_t audioDelta = DeltaTo(item, queue->LastAudioTs);
    RtmpQueueBufferBeginSend(queue->AudioBuffer);
    queue->LastAudioTs = item->Timestamp;
    if (SendItem(queue, item, audioDelta) != 0) {
        return AUDIO_FAILED; // it stays queued
    }
    ReleaseAudio(queue->AudioBuffer);
    return AUDIO_SENT;
}

int SendAllDueAudio(RtmpThreadedQueue *queue, const NextVideo *video)
{
    AudioResult result = AUDIO_SENT;
    while (result == AUDIO_SENT) {
        result = SendNextDueAudio(queue, video);
    }
    return result == AUDIO_FAILED ? -1 : 0;
}

int SendVideo(RtmpThreadedQueue *queue, const RtmpQueueBufferItem *item, uint64_t delta)
{
    RtmpQueueBufferBeginSend(queue->VideoBuffer);
    queue->LastVideoTs = item->Timestamp;
    if (SendItem(queue, item, delta) != 0) {
        return -1;
    }
    (void)RtmpQueueBWMAdd(queue->Bwm, queue->Session, static_cast<uint32_t>(item->Length)); // null is fine
    (void)RtmpQueueBufferRelease(queue->VideoBuffer); // a flush may have emptied it meanwhile
    return 0;
}

// Between this frame and the last one sent, others were dropped: their sound has gone, or goes, without them.
void NoticeBreaksBefore(RtmpThreadedQueue *queue, const RtmpQueueBufferItem *item)
{
    if (queue->BreaksSent != item->Breaks) {
        queue->BreaksSent = item->Breaks;
        NoteStreamBreak(queue->Session);
    }
}

int SendInterleaved(RtmpThreadedQueue *queue, const RtmpQueueBufferItem *item)
{
    RtmpMutex *listLock = &queue->Session->Server->LiveSessionListLock;
    // RtmpSessionDestroy holds this lock while it cancels and joins this thread.
    if (RtmpMutexLockOrCancel(listLock) != 0) {
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = listLock;
    NoticeBreaksBefore(queue, item);
    const NextVideo video = {DeltaTo(item, queue->LastVideoTs), item->Timestamp,
                             IsHostsOrder(queue->Session)};
    if (SendAllDueAudio(queue, &video) != 0) {
        return -1;
    }
    return SendVideo(queue, item, video.Delta);
}

// Waits for a video frame and sends it with the audio in front of it. -1: a send failed.
// KEPT: nothing waits for audio, so that sound without video never leaves. Required.
int SendNextFrame(RtmpThreadedQueue *queue)
{
    WaitForItem(queue->VideoBuffer);
    if (RtmpMutexLock(&queue->VideoBuffer->Lock) != 0) {
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &queue->VideoBuffer->Lock;
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(queue->VideoBuffer);
    if (item == nullptr) {
        return 0; // flushed after it was announced
    }
    const RtmpQueueTime start = WallClock();
    if (SendInterleaved(queue, item) != 0) {
        return -1;
    }
    (void)RtmpQueueDebugLog(queue, queue->LastVideoTs, RtmpQueueBufferCount(queue->VideoBuffer), start,
                            WallClock()); // without a trace nothing is written
    return 0;
}

} // namespace

void *RtmpSenderThread(void *argument)
{
    RtmpThreadedQueue *queue = static_cast<RtmpThreadedQueue *>(argument);
    RECORD_END_AT_EXIT RtmpThreadedQueue *ending = queue;
    LogStart(queue, __func__);
    while (SendNextFrame(queue) == 0) {
    }
    RtmpLogger *logger = LoggerOf(queue->Session->Server);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: ====>Threaded\n", __func__);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: ====>Sending message to connected clients failed\n",
                 __func__);
    StoreShared(&queue->Closed, uint8_t{1});
    return nullptr;
}
