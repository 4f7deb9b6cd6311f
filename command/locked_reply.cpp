#include "command/locked_reply.h"

#include "delivery/write/client_send.h"
#include "message/generate.h"
#include "net/atomic.h"
#include "net/platform.h"
#include "net/scope.h"
#include "state/client_list.h"

LockedReply ReplyUnderClientListLock(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    if (LockClientsOf(client, &held) != 0) {
        return LOCKED_REPLY_NO_LOCK;
    }
    RtmpSendPkt *reply = GenerateRtmpMsg(client, pkt, kind);
    if (reply == nullptr) {
        return LOCKED_REPLY_NOT_GENERATED;
    }
    if (SendMsgToClient(client, reply, kind) != 0) { // the message is no longer ours in any case
        return LOCKED_REPLY_NOT_SENT;
    }
    return UnlockClients(&held) == 0 ? LOCKED_REPLY_SENT : LOCKED_REPLY_NO_UNLOCK;
}
