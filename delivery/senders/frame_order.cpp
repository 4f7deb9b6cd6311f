#include "delivery/senders/frame_order.h"

#include "instruments/sender_clock.h"
#include "net/client_state.h"
#include "net/scope.h"

bool IsHostsOrder(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    bool anyPlays = false;
    for (const RtmpClient *client = session->ClientListHead; client != nullptr; client = client->NextClient) {
        if (ClientStateOf(client) != CLIENT_STATE_PLAY_DONE) {
            continue;
        }
        if (MovesSenderClock(client)) {
            return false;
        }
        anyPlays = true;
    }
    return anyPlays;
}
