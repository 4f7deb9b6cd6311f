#include "instruments/sender_clock.h"

#include "instruments/monitor_records.h"
#include "instruments/queue_records.h"
#include "net/atomic.h"

namespace {

uint64_t *TimeInQueue(RtmpThreadedQueue *queue, bool isVideo)
{
    if (queue == nullptr) {
        return nullptr;
    }
    return isVideo ? &queue->LastVideoRtmpTs : &queue->LastAudioRtmpTs;
}

uint64_t *TimeInMonitor(RtmpMonitor *monitor, bool isVideo)
{
    if (monitor == nullptr) {
        return nullptr;
    }
    return isVideo ? &monitor->LastVideoRtmpTs : &monitor->LastAudioRtmpTs;
}

} // namespace

void NoteStampedTime(const RtmpClient *client, const RtmpSendPkt *pkt)
{
    const RtmpSession *session = LoadShared(&client->Session);
    if (session == nullptr) {
        return;
    }
    const bool isVideo = pkt->MsgKind == RTMP_MSG_VIDEO;
    uint64_t *lastTime = LoadShared(&session->SenderMode) == RTMP_SENDER_THREADED
                             ? TimeInQueue(LoadShared(&session->Queue), isVideo)
                             : TimeInMonitor(LoadShared(&session->Monitor), isVideo);
    if (lastTime != nullptr) {
        StoreShared(lastTime, pkt->Timestamp);
    }
}
