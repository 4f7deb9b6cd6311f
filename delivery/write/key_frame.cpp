#include "delivery/write/key_frame.h"

#include "message/timeline.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/scope.h"
#include "steady/line.h"
#include "steady/line_flush.h"

namespace {

void NoticeBreaks(RtmpClient *client, const RtmpSession *session)
{
    const uint32_t breaks = LoadShared(&session->StreamBreaks);
    if (client->BreaksSeen != breaks) {
        client->BreaksSeen = breaks;
        client->AwaitsKeyFrame = 1;
    }
}

} // namespace

void NoteStreamBreak(RtmpSession *session)
{
    (void)AddShared(&session->StreamBreaks, uint32_t{1});
}

bool MayHaveFrame(RtmpClient *client, const RtmpSession *session, const RtmpFrame *frame)
{
    if (!Allows(client, RULE_KEY_FRAME_FIRST)) {
        return true;
    }
    NoticeBreaks(client, session);
    if (frame->IsKeyFrame != 0 || LoadShared(&session->MediaKind) == RTMP_MEDIA_AUDIO) {
        client->AwaitsKeyFrame = 0;
    }
    return client->AwaitsKeyFrame == 0;
}

void StartAnew(RtmpClient *client, int again)
{
    if (client->Line != nullptr) {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
        BeginAnew(client->Line, again);
        return;
    }
    if (!Allows(client, RULE_TIMELINE) && !Allows(client, RULE_KEY_FRAME_FIRST)) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    client->AwaitsKeyFrame = 1;
    if (again != 0) {
        InterruptTimeline(client);
    } else {
        BeginTimeline(client);
    }
}

void SendWhatIsHeld(RtmpClient *client)
{
    if (client->Line != nullptr) {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
        FlushLine(client->Line, RtmpGetSystemTime());
    }
}
