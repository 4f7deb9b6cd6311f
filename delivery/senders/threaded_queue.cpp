#include "delivery/senders/threaded_queue.h"

#include "delivery/senders/sender_thread.h"
#include "delivery/write/key_frame.h"
#include "instruments/adaptive_bitrate.h"
#include "instruments/bandwidth_monitor.h"
#include "instruments/debug_trace.h"
#include "instruments/encoder_feedback.h"
#include "instruments/ring.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/media.h"
#include "rtmpcast/sender.h"
#include "state/client_signal.h"

#include <pthread.h>

namespace {

// ------------------------------------------------------------------------------------- the first client

// KEPT: only the first client of the list decides whether frames are queued. Required; changes who gets
// frames. The session's MemberLock keeps it alive for the look, and is never held while anything is sent.
bool FirstClientPlays(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    const RtmpClient *first = session->ClientListHead;
    return first != nullptr && ClientStateOf(first) == CLIENT_STATE_PLAY_DONE;
}

// Its serve thread sits in a read as a rule, and leaves out of it.
void CloseFirstClient(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    RtmpClient *first = session->ClientListHead;
    if (first != nullptr && ClientStateOf(first) == CLIENT_STATE_PLAY_DONE) {
        SetClientState(first, CLIENT_STATE_CLOSED);
        EndReading(first);
    }
}

// ------------------------------------------------------------------------------------ the sender thread

void JoinSender(RtmpThreadedQueue *queue)
{
    (void)RtmpWaitForThreadCompletion(queue->ThreadId); // it has not been joined before, and ends
    queue->ThreadId = 0;
    StoreShared(&queue->ThreadRunning, uint8_t{0});
}

void StopSender(RtmpThreadedQueue *queue)
{
    if (queue->ThreadId != 0) {
        (void)RtmpThreadCancel(queue->ThreadId); // always 0
        JoinSender(queue);
    }
}

bool IsSenderAlive(RtmpThreadedQueue *queue)
{
    if (LoadShared(&queue->ThreadRunning) != 0) {
        return true;
    }
    if (queue->ThreadId != 0) {
        JoinSender(queue); // it recorded its end as the last thing it did
    }
    return false;
}

// The thread inherits its creator's scheduling, and goes on where the one before it was ended.
int StartSender(RtmpThreadedQueue *queue)
{
    if (RtmpQueueBufferRecover(queue->VideoBuffer)) {
        NoteStreamBreak(queue->Session); // some players have got it, others not
    }
    (void)RtmpQueueBufferRecover(queue->AudioBuffer);
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return -1;
    }
    pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
    StoreShared(&queue->ThreadRunning, uint8_t{1}); // it may end before pthread_create returns
    const int result = pthread_create(&queue->ThreadId, &attributes, RtmpSenderThread, queue);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        queue->ThreadId = 0;
        StoreShared(&queue->ThreadRunning, uint8_t{0});
        return -1;
    }
    return 0;
}

enum SenderState { SENDER_READY, SENDER_CLOSED, SENDER_NOT_STARTED };

SenderState EnsureSender(RtmpThreadedQueue *queue)
{
    if (IsSenderAlive(queue)) {
        return SENDER_READY;
    }
    if (LoadShared(&queue->Closed) != 0) {
        return SENDER_CLOSED;
    }
    return StartSender(queue) == 0 ? SENDER_READY : SENDER_NOT_STARTED;
}

// ---------------------------------------------------------------------------------------------- frames

// Players that wait for key frames begin anew behind a picture that is lost. What is lost of the sound is
// only missed.
void NoteUnqueuedFrame(RtmpThreadedQueue *queue, int64_t mediaType)
{
    if (static_cast<uint32_t>(mediaType) == RTMP_FRAME_VIDEO) {
        RtmpQueueBufferSkip(queue->VideoBuffer);
    }
}

// The frame that did not fit goes with the rest; the next one starts an empty ring.
void FlushVideo(RtmpThreadedQueue *queue, const char *caller)
{
    const int32_t count = RtmpQueueBufferCount(queue->VideoBuffer);
    if (queue->Debug != nullptr) {
        (void)AddShared(&queue->Debug->Dropped, static_cast<uint32_t>(count));
    }
    RtmpLogPrint(LoggerOf(queue->Session->Server), RTMP_LOG_INFO, "INFO: %s: Flushing Video Buffer\n",
                 caller);
    RtmpQueueBufferFlush(queue->VideoBuffer);
}

void FlushAudio(RtmpThreadedQueue *queue, const char *caller)
{
    RtmpLogPrint(LoggerOf(queue->Session->Server), RTMP_LOG_INFO, "INFO: %s: Flushing Audio Buffer\n",
                 caller);
    RtmpQueueBufferFlush(queue->AudioBuffer);
}

RtmpThreadedQueue *QueueOf(RtmpSession *session)
{
    return session == nullptr ? nullptr : session->Queue;
}

void FreeQueue(RtmpThreadedQueue *queue)
{
    RtmpQueueBufferDestroy(queue->AudioBuffer);
    RtmpQueueBufferDestroy(queue->VideoBuffer);
    RtmpQueueBWMDestroy(queue->Bwm);
    RtmpQueueDebugDestroy(queue->Debug);
    RtmpQueueAdaptiveBitrateDestroy(queue->Abr);
    free(queue);
}

} // namespace

int RtmpThreadedQueueInit(RtmpSession *session, uint32_t audioQueueSize, uint32_t videoQueueSize)
{
    if (session->Queue != nullptr) {
        return 0; // serve threads and the sender thread may be using it
    }
    RtmpLogger *logger = LoggerOf(session->Server);
    RtmpThreadedQueue *queue = NewRecord<RtmpThreadedQueue>();
    if (queue == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for rtmpQueue\n", __func__);
        return -1;
    }
    queue->Session = session;
    queue->EncoderHandle = session->EncoderHandle;
    queue->AudioBuffer = RtmpQueueBufferCreate(audioQueueSize);
    if (queue->AudioBuffer == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for Audio rtmpQueueBuffer\n",
                     __func__);
        FreeQueue(queue);
        return -1;
    }
    queue->VideoBuffer = RtmpQueueBufferCreate(videoQueueSize);
    if (queue->VideoBuffer == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for Video rtmpQueueBuffer\n",
                     __func__);
        FreeQueue(queue);
        return -1;
    }
    StoreShared(&session->Queue, queue);
    return 0;
}

int RtmpThreadedQueueBWMInit(RtmpSession *session, uint32_t enable, uint32_t windowSize)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr || enable == 0) {
        return 0;
    }
    RtmpQueueBWM *monitor = RtmpQueueBWMCreate(windowSize);
    if (monitor == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Not enough memory for Bandwidth Monitor\n", __func__);
        return -1;
    }
    StopSender(queue);
    RtmpQueueBWMDestroy(queue->Bwm);
    queue->Bwm = monitor;
    return 0;
}

int RtmpThreadedQueueDebugInit(RtmpSession *session, uint32_t enable, uint8_t burninEnable, uint8_t logEnable,
                               const char *directory, uint32_t logEvery)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr || enable == 0) {
        return 0;
    }
    RtmpQueueDebug *debug = RtmpQueueDebugCreate(burninEnable, logEnable, directory, logEvery);
    if (debug == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for Debug\n",
                     __func__);
        return -1;
    }
    StopSender(queue);
    RtmpQueueDebugDestroy(queue->Debug);
    queue->Debug = debug;
    return 0;
}

int RtmpThreadedQueueAdaptiveBitrateInit(RtmpSession *session, uint32_t enable, uint32_t minBitrate,
                                         uint32_t startDelayMs, uint32_t increaseFullness,
                                         uint32_t increasePercent, uint32_t increaseMinStep,
                                         uint32_t increaseIntervalSec, uint32_t decreaseFullness,
                                         uint32_t decreasePercent, uint32_t decreaseFullnessHigh,
                                         uint32_t decreasePercentHigh, uint32_t decreaseIntervalSec,
                                         uint32_t spare)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr || enable == 0) {
        return 0;
    }
    RtmpQueueAdaptiveBitrate *abr = RtmpQueueAdaptiveBitrateCreate(
        LoggerOf(session->Server), minBitrate, startDelayMs, increaseFullness, increasePercent,
        increaseMinStep, increaseIntervalSec, decreaseFullness, decreasePercent, decreaseFullnessHigh,
        decreasePercentHigh, decreaseIntervalSec, spare);
    if (abr == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Not enough memory for Adaptive Bitrate\n", __func__);
        return -1;
    }
    StopSender(queue);
    RtmpQueueAdaptiveBitrateDestroy(queue->Abr);
    queue->Abr = abr;
    return 0;
}

int RtmpThreadedQueueSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                              uint64_t mapBase, uint64_t timestamp, int64_t mediaType)
{
    if (session == nullptr) {
        return 0;
    }
    RtmpThreadedQueue *queue = session->Queue;
    if (queue == nullptr) {
        return -1;
    }
    if (!FirstClientPlays(session)) {
        NoteUnqueuedFrame(queue, mediaType);
        return 0;
    }
    RtmpLogger *logger = LoggerOf(session->Server);
    const SenderState sender = EnsureSender(queue);
    if (sender == SENDER_CLOSED) {
        CloseFirstClient(session);
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: The Sender thread exited\n", __func__);
        return 0;
    }
    if (sender == SENDER_NOT_STARTED) {
        NoteUnqueuedFrame(queue, mediaType);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error: Failed to create thread\n", __func__);
        return -1;
    }
    TraceFrame(queue, timestamp);

    const uint32_t frameKind = static_cast<uint32_t>(mediaType);
    if (frameKind != RTMP_FRAME_AUDIO && frameKind != RTMP_FRAME_VIDEO) {
        return 0;
    }
    const bool isVideo = frameKind == RTMP_FRAME_VIDEO;
    const int added =
        RtmpQueueBufferAdd(isVideo ? queue->VideoBuffer : queue->AudioBuffer,
                           isVideo ? RTMP_MSG_VIDEO : RTMP_MSG_AUDIO, data, length, fd, mapBase, timestamp);
    if (added == QUEUE_BUFFER_NO_MEMORY) {
        NoteUnqueuedFrame(queue, mediaType);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error: Failed to add buffer to queue\n", __func__);
        return -1;
    }
    if (isVideo) {
        RtmpQueueBuffer *video = queue->VideoBuffer;
        FollowVideo(queue, RtmpQueueBufferCount(video), added == QUEUE_BUFFER_FULL, timestamp);
    }
    if (added == QUEUE_BUFFER_FULL && isVideo) {
        FlushVideo(queue, __func__);
    } else if (added == QUEUE_BUFFER_FULL) {
        FlushAudio(queue, __func__);
    }
    return 0;
}

void RtmpThreadedQueueStop(RtmpSession *session)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue != nullptr) {
        StopSender(queue);
    }
}

int ResetThreadedQueue(RtmpSession *session)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr) {
        return 0;
    }
    StopSender(queue);
    RtmpQueueBufferReset(queue->AudioBuffer);
    RtmpQueueBufferReset(queue->VideoBuffer);
    ResetInstruments(queue);
    queue->LastAudioTs = 0;
    queue->LastVideoTs = 0;
    StoreShared(&queue->LastVideoRtmpTs, uint64_t{0});
    StoreShared(&queue->LastAudioRtmpTs, uint64_t{0});
    StoreShared(&queue->Closed, uint8_t{0});
    NoteStreamBreak(session);
    return 0;
}

int CloseThreadedQueue(RtmpSession *session)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr) {
        return 0;
    }
    (void)ResetThreadedQueue(session); // always 0
    StoreShared(&queue->Closed, uint8_t{1});
    return 0;
}

int RtmpThreadedQueueDestroy(RtmpSession *session)
{
    RtmpThreadedQueue *queue = QueueOf(session);
    if (queue == nullptr) {
        return 0;
    }
    StopSender(queue);
    StoreShared(&session->Queue, static_cast<RtmpThreadedQueue *>(nullptr));
    FreeQueue(queue);
    return 0;
}
