#include "command/locked_reply.h"

#include "delivery/write/client_send.h"
#include "message/generate.h"
#include "net/atomic.h"
#include "net/platform.h"
#include "net/scope.h"

LockedReply ReplyUnderClientListLock(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    RtmpSession *session = LoadShared(&client->Session);
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    if (session != nullptr) {
        if (RtmpMutexLock(&session->ClientListLock) != 0) {
            return LOCKED_REPLY_NO_LOCK;
        }
        held = &session->ClientListLock;
    }
    RtmpSendPkt *reply = GenerateRtmpMsg(client, pkt, kind);
    if (reply == nullptr) {
        return LOCKED_REPLY_NOT_GENERATED;
    }
    if (SendMsgToClient(client, reply, kind) != 0) { // the message is no longer ours in any case
        return LOCKED_REPLY_NOT_SENT;
    }
    RtmpMutex *released = held;
    held = nullptr;
    return released == nullptr || RtmpMutexUnlock(released) == 0 ? LOCKED_REPLY_SENT : LOCKED_REPLY_NO_UNLOCK;
}
