#include "instruments/sender_clock.h"

#include "instruments/monitor_records.h"
#include "instruments/queue_records.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/player_rules.h"

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

bool MovesSenderClock(const RtmpClient *client)
{
    return !Allows(client, RULE_TIMELINE) && !Allows(client, RULE_KEY_FRAME_FIRST);
}

bool IsSoundDue(uint64_t soundTime, uint64_t pictureTime)
{
    const int64_t later = static_cast<int64_t>(soundTime - pictureTime);
    return later <= 0 || later > kClockJumpMs;
}

void NoteStampedTime(const RtmpClient *client, const RtmpSendPkt *pkt)
{
    if (!MovesSenderClock(client)) {
        return;
    }
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
