#include "message/timeline.h"

#include "message/header_fields.h"
#include "net/limits.h"
#include "net/player_rules.h"

#include <string.h>

namespace {

constexpr int64_t kFarthestStep = INT32_MAX; // RTMP 1.0, 5.1: further ahead, and a time counts as older

// Behind a pause the delta may be as long as the pause.
uint64_t DeltaBehindPause(uint64_t delta)
{
    return delta < kLongestFrameMs ? delta : kLongestFrameMs;
}

void StartClock(RtmpClient *client, const RtmpFrameTime *frame)
{
    const uint64_t last = client->TimelineTime;
    const uint64_t first = last == 0 ? 0 : last + DeltaBehindPause(frame->Delta);
    client->TimelineStart = frame->Time - first; // modulo 2^64: a host's clock may begin at 0
    client->IsTimelineBegun = 1;
}

bool IsJump(int64_t step, bool leads)
{
    return step < -kClockJumpMs || step > (leads ? kFarthestStep : kClockJumpMs);
}

bool HasOwnTimeline(const RtmpClient *client)
{
    return client->Line != nullptr || Allows(client, RULE_TIMELINE);
}

} // namespace

void BeginTimeline(RtmpClient *client)
{
    client->IsTimelineBegun = 0;
    client->TimelineTime = 0;
}

void InterruptTimeline(RtmpClient *client)
{
    client->IsTimelineBegun = 0;
}

uint64_t PlaceOnTimeline(RtmpClient *client, const RtmpFrameTime *frame)
{
    if (client->IsTimelineBegun == 0) {
        StartClock(client, frame);
    }
    const uint64_t last = client->TimelineTime;
    const int64_t step = static_cast<int64_t>(frame->Time - client->TimelineStart - last);
    if (IsJump(step, frame->Leads != 0)) {
        if (frame->Leads != 0) {
            client->TimelineStart = frame->Time - last;
        }
        return last;
    }
    if (step < 0) {
        const uint64_t back = static_cast<uint64_t>(-step); // at most kClockJumpMs
        return back < last ? last - back : 0;
    }
    const uint64_t time = last + static_cast<uint64_t>(step);
    client->TimelineTime = time;
    return time;
}

int StampReply(RtmpClient *client, RtmpSendPkt *message, uint32_t kind)
{
    if (!HasOwnTimeline(client) || message->Stored != 0) {
        return 0; // one that a host has stored is a reference already
    }
    SetTimestamp(message, client->TimelineTime);
    if (kind == RTMP_MSG_PING_RESPONSE) {
        memset(message->HdrTimestamp, 0, sizeof message->HdrTimestamp);
        memset(message->ExtTimestamp, 0, sizeof message->ExtTimestamp);
    }
    return MeasureDelta(client, message);
}
