#include "message/send_list.h"

#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"

namespace {

int LockSendList(RtmpClient *client, const char *who)
{
    if (RtmpMutexLock(&client->SendStrmListLock) == 0) {
        return 0;
    }
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot lock send packet list\n", who);
    return -1;
}

int UnlockSendList(RtmpClient *client, const char *who)
{
    if (RtmpMutexUnlock(&client->SendStrmListLock) == 0) {
        return 0;
    }
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock send packet list\n",
                 who);
    return -1;
}

// The procedures below are called with the list locked.

RtmpSendPkt *FindSent(const RtmpClient *client, uint32_t chunkStreamId)
{
    RtmpSendPkt *pkt = client->SendPktCount > 0 ? client->SendPktHead : nullptr;
    while (pkt != nullptr && pkt->ChunkStreamId != chunkStreamId) {
        pkt = pkt->Next;
    }
    return pkt;
}

// IsSentListed tells whether `wanted` is in the list by its address alone: the caller may hold one that is
// gone.
bool IsSentListed(const RtmpClient *client, const RtmpSendPkt *wanted)
{
    const RtmpSendPkt *pkt = client->SendPktHead;
    while (pkt != nullptr && pkt != wanted) {
        pkt = pkt->Next;
    }
    return pkt != nullptr;
}

void AppendSent(RtmpClient *client, RtmpSendPkt *pkt)
{
    pkt->Next = nullptr;
    pkt->Prev = client->SendPktTail;
    if (client->SendPktTail != nullptr) {
        client->SendPktTail->Next = pkt;
    } else {
        client->SendPktHead = pkt;
    }
    client->SendPktTail = pkt;
    client->SendPktCount++;
    pkt->Stored = 1;
    pkt->HdrType = RTMP_HDR_TYPE_UNSENT;
}

void UnlinkSent(RtmpClient *client, RtmpSendPkt *pkt)
{
    RtmpSendPkt **fromBefore = pkt->Prev != nullptr ? &pkt->Prev->Next : &client->SendPktHead;
    RtmpSendPkt **fromBehind = pkt->Next != nullptr ? &pkt->Next->Prev : &client->SendPktTail;
    *fromBefore = pkt->Next;
    *fromBehind = pkt->Prev;
    pkt->Next = nullptr;
    pkt->Prev = nullptr;
    pkt->Stored = 0;
    client->SendPktCount--;
}

void FreeAllSent(RtmpClient *client)
{
    while (client->SendPktHead != nullptr) {
        RtmpSendPkt *pkt = client->SendPktHead;
        UnlinkSent(client, pkt);
        FreeSendPkt(pkt);
    }
}

// Metadata and sequence headers belong to the session, frames to the host.
bool IsPayloadBorrowed(const RtmpSendPkt *pkt)
{
    return pkt->MsgKind == RTMP_MSG_META_DATA || pkt->MsgKind == RTMP_MSG_VIDEO ||
           pkt->MsgKind == RTMP_MSG_AUDIO;
}

} // namespace

void FreeSendPkt(RtmpSendPkt *pkt)
{
    if (pkt == nullptr) {
        return;
    }
    ForgetPayload(pkt);
    free(pkt);
}

void ForgetPayload(RtmpSendPkt *pkt)
{
    if (!IsPayloadBorrowed(pkt)) {
        free(pkt->PayloadData);
    }
    pkt->PayloadData = nullptr;
}

int AddSendPkt(RtmpClient *client, RtmpSendPkt *pkt)
{
    // Whoever hears of a failure still owns the message, and may free it. One that is in the list already is
    // the list's, whatever its lock says.
    if (LockSendList(client, __func__) != 0) {
        return pkt->Stored != 0 ? 0 : -1;
    }
    RtmpSendPkt *replaced = FindSent(client, pkt->ChunkStreamId);
    if (replaced == pkt) {
        (void)UnlockSendList(client, __func__); // logged
        return 0;
    }
    if (replaced != nullptr) {
        UnlinkSent(client, replaced);
        FreeSendPkt(replaced);
    }
    AppendSent(client, pkt);
    if (UnlockSendList(client, __func__) != 0) {
        UnlinkSent(client, pkt);
        return -1;
    }
    return 0;
}

int RemoveSendPkt(RtmpClient *client, RtmpSendPkt *pkt)
{
    if (LockSendList(client, __func__) != 0) {
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &client->SendStrmListLock;
    if (client->SendPktHead == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: No Rtmp Send stream packet list\n",
                     __func__);
        return -1;
    }
    if (pkt == nullptr) {
        FreeAllSent(client);
    } else if (IsSentListed(client, pkt)) {
        UnlinkSent(client, pkt);
        FreeSendPkt(pkt);
    } else {
        return -1;
    }
    held = nullptr;
    return UnlockSendList(client, __func__);
}

void FreeSendPkts(RtmpClient *client)
{
    FreeAllSent(client);
}

RtmpSendPkt *GetSendPktFromList(RtmpClient *client, int chunkStreamId)
{
    if (LockSendList(client, __func__) != 0) {
        return nullptr;
    }
    RtmpSendPkt *pkt = FindSent(client, static_cast<uint32_t>(chunkStreamId));
    return UnlockSendList(client, __func__) == 0 ? pkt : nullptr;
}

int StoredTimestamp(RtmpClient *client, uint32_t chunkStreamId, uint64_t *timestamp)
{
    // It stands in for GetSendPktFromList, whose lines it writes.
    constexpr char kWho[] = "GetSendPktFromList";
    if (LockSendList(client, kWho) != 0) {
        return -1;
    }
    const RtmpSendPkt *pkt = FindSent(client, chunkStreamId);
    if (pkt != nullptr) {
        *timestamp = LoadShared(&pkt->Timestamp); // senders move it on without this lock
    }
    const int found = pkt != nullptr ? 1 : 0;
    return UnlockSendList(client, kWho) == 0 ? found : -1;
}
