#include "instruments/encoder_feedback.h"

#include "instruments/adaptive_bitrate.h"
#include "instruments/bandwidth_monitor.h"
#include "instruments/debug_trace.h"
#include "net/atomic.h"
#include "net/host_call.h"
#include "net/limits.h"

namespace {

int32_t c = 0;            // frames since the last burn-in, of all sessions
int32_t warning_sent = 0; // "Buffer full" is outstanding, for whichever session

// 0 until the video has been described with a bitrate.
int32_t ConfiguredBitrate(const RtmpSession *session)
{
    const CodecInfo *codecInfo = LoadShared(&session->CodecInfo);
    if (codecInfo == nullptr || codecInfo->VdCodecInfo == nullptr) {
        return 0;
    }
    const uint32_t bitrate = codecInfo->VdCodecInfo->bitrate;
    return bitrate > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bitrate);
}

// Starts the controller, and the host's encoder, at the configured bitrate as soon as there is one.
void StartController(RtmpThreadedQueue *queue)
{
    const int32_t bitrate = ConfiguredBitrate(queue->Session);
    if (bitrate == 0) {
        return;
    }
    (void)RtmpQueueAdaptiveBitrateInit(queue->Abr, bitrate);                               // not null
    (void)RtmpQueueDebugBurnin(queue->Debug, queue->Session, -1, bitrate / 1000, bitrate); // null is fine
    SetEncoderBitrate(queue->Session, bitrate);
}

void RunController(RtmpThreadedQueue *queue, int32_t queued, uint64_t timestamp)
{
    if (queue->Abr->CurrentBitrate < 0) {
        StartController(queue);
        return;
    }
    const int32_t kbps = RtmpQueueBWMKbps(queue->Bwm, -1);
    (void)RtmpQueueAdaptiveBitrateUpdate(queue->Abr, kbps, queued, queue->VideoBuffer->Size, queue->Session,
                                         timestamp, queue->Debug); // not null
    if (AddShared(&c, 1) - 1 > kFramesBetweenBurnins) {
        (void)RtmpQueueDebugBurnin(queue->Debug, queue->Session, queued, kbps,
                                   queue->Abr->CurrentBitrate); // null is fine
        StoreShared(&c, 0);
    }
}

// True for the one caller that moves the latch from `from` to `to`.
bool MoveWarning(int32_t from, int32_t to)
{
    return __atomic_compare_exchange_n(&warning_sent, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// What a host without a controller is told of congestion.
void WarnOfFullness(const RtmpThreadedQueue *queue, int32_t queued, bool isFull)
{
    if (isFull && MoveWarning(0, 1)) {
        ReportStatus(queue->Session, "rtmpLowBitrate", "1", "Buffer full");
    } else if (!isFull && queued < kAlmostEmptyRing && MoveWarning(1, 0)) {
        ReportStatus(queue->Session, "rtmpLowBitrate", "0", "Buffer is empty");
    }
}

} // namespace

void TraceFrame(RtmpThreadedQueue *queue, uint64_t timestamp)
{
    if (queue->Debug == nullptr) {
        return;
    }
    if (LoadShared(&queue->Debug->StartTs) == 0) {
        (void)RtmpQueueDebugInit(queue->Debug, timestamp); // not null
    }
    (void)RtmpQueueDebugUpdate(queue->Debug, queue->Session, timestamp);
}

void FollowVideo(RtmpThreadedQueue *queue, int32_t queued, bool isFull, uint64_t timestamp)
{
    if (queue->Abr != nullptr) {
        RunController(queue, queued, timestamp);
    } else {
        WarnOfFullness(queue, queued, isFull);
    }
}

void ResetInstruments(RtmpThreadedQueue *queue)
{
    (void)RtmpQueueBWMReset(queue->Bwm); // null is fine, here and below
    (void)RtmpQueueDebugReset(queue->Debug);
    (void)RtmpQueueAdaptiveBitrateReset(queue->Abr);
}
