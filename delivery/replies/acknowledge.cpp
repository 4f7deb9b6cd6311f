#include "delivery/replies/acknowledge.h"

#include "delivery/replies/reply.h"
#include "message/send_list.h"
#include "net/client_state.h"
#include "net/limits.h"
#include "net/player_rules.h"
#include "net/scope.h"

namespace {

// ForgetControlReference makes the next control message start with a full header and be the reference of
// those behind it. By default headers are shortened against the first message of a chunk stream, and
// receivers read them against the last: an acknowledgement in between would be taken for what the others are,
// or they for it.
void ForgetControlReference(RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    RtmpSendPkt *reference = GetSendPktFromList(client, static_cast<int>(kControlChunkStreamId));
    if (reference != nullptr) {
        (void)RemoveSendPkt(client, reference); // found a moment ago; a failure is logged
    }
}

} // namespace

void AcknowledgeReceived(RtmpClient *client)
{
    const uint32_t window = client->WindowAckSize;
    const uint32_t unacknowledged = client->BytesReceived - client->BytesAcknowledged;
    if (!Allows(client, RULE_ACKNOWLEDGE) || window == 0 || unacknowledged < window) {
        return;
    }
    // Also when it cannot be sent: the next attempt is a window later, not with every chunk.
    client->BytesAcknowledged = client->BytesReceived;
    ForgetControlReference(client);
    (void)SendReply(client, nullptr, RTMP_MSG_ACKNOWLEDGEMENT, RTMP_MSG_ACKNOWLEDGEMENT, &kResponseFailures,
                    __func__); // logged; the connection goes on
}
