#include "message/recv_list.h"

#include "message/recv_index.h"
#include "message/recv_packet.h"
#include "net/log.h"
#include "net/platform.h"

#include <stdlib.h>

namespace {

constexpr const char *kRemove = "RemoveRecvPkt";

// The procedures below are called with the list locked.

// IsListed tells whether `wanted` is in the list by its address alone: the caller may hold one that is gone.
bool IsListed(const RtmpClient *client, const RtmpRecvPkt *wanted)
{
    const RtmpRecvPkt *pkt = client->RecvPktHead;
    while (pkt != nullptr && pkt != wanted) {
        pkt = pkt->Next;
    }
    return pkt != nullptr;
}

// IsStored tells the same of a packet that is there, as a rule without a walk. Only the serving thread
// changes the list: on that thread it needs no lock.
bool IsStored(const RtmpClient *client, const RtmpRecvPkt *pkt)
{
    if (pkt->Place == nullptr) {
        return false;
    }
    // A host may have copied a stored packet, or given one another id.
    return FindInIndex(client, pkt->ChunkStreamId) == pkt || IsListed(client, pkt);
}

void Append(RtmpClient *client, RtmpRecvPkt *pkt)
{
    pkt->Next = nullptr;
    pkt->Prev = client->RecvPktTail;
    if (client->RecvPktTail != nullptr) {
        client->RecvPktTail->Next = pkt;
    } else {
        client->RecvPktHead = pkt;
    }
    client->RecvPktTail = pkt;
    client->RecvPktCount++;
    AddToIndex(client, pkt);
}

void Unlink(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (pkt->Prev != nullptr) {
        pkt->Prev->Next = pkt->Next;
    } else {
        client->RecvPktHead = pkt->Next;
    }
    if (pkt->Next != nullptr) {
        pkt->Next->Prev = pkt->Prev;
    } else {
        client->RecvPktTail = pkt->Prev;
    }
    client->RecvPktCount--;
    TakeFromIndex(pkt);
}

// RemoveStored takes one packet out and frees it. A packet whose command could not be freed stays stored,
// so that nothing points to freed memory.
int RemoveStored(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (FreeDecodedCommand(client->Server, pkt) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Can not free memory allocated for amf object\n", kRemove);
        return -1;
    }
    Unlink(client, pkt);
    free(pkt->PayloadData);
    free(pkt);
    return 0;
}

int RemoveAll(RtmpClient *client)
{
    while (client->RecvPktHead != nullptr) {
        if (RemoveStored(client, client->RecvPktHead) != 0) {
            return -1;
        }
    }
    return 0;
}

int UnlockAfterRemoval(RtmpClient *client, int status)
{
    if (RtmpMutexUnlock(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot Unlock receive packet list\n", kRemove);
        return -1;
    }
    return status;
}

// RemoveKnown is RemoveRecvPkt for a packet that has been found in the list.
int RemoveKnown(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, kRemove) != 0) {
        return -1;
    }
    return UnlockAfterRemoval(client, RemoveStored(client, pkt));
}

// MakeRoomFor removes the packet in whose place another of its chunk stream comes. The list is unlocked while
// it is removed; only the serving thread changes the list, so `stored` stays. -1: the list is not locked.
int MakeRoomFor(RtmpClient *client, RtmpRecvPkt *stored, const char *who)
{
    if (RtmpMutexUnlock(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot Unlock receive packet list\n", who);
        return -1;
    }
    return RemoveKnown(client, stored) == 0 ? LockRecvList(client, who) : -1;
}

int RemoveLocked(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (client->RecvPktHead == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: No Rtmp Recv stream packet list\n",
                     kRemove);
        return -1;
    }
    if (pkt == nullptr) {
        return RemoveAll(client);
    }
    return IsListed(client, pkt) ? RemoveStored(client, pkt) : -1;
}

} // namespace

int LockRecvList(RtmpClient *client, const char *who)
{
    if (RtmpMutexLock(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot lock receive packet list\n",
                     who);
        return -1;
    }
    return 0;
}

int UnlockRecvList(RtmpClient *client, const char *who)
{
    if (RtmpMutexUnlock(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot unlock receive packet list\n", who);
        return -1;
    }
    return 0;
}

int AddRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt)
{
    // Whoever hears of a failure still owns the packet, and may free it. One that is in the list already is
    // the list's, whatever its lock says.
    const bool wasStored = IsStored(client, pkt);
    if (LockRecvList(client, __func__) != 0) {
        return wasStored ? 0 : -1;
    }
    if (!wasStored) {
        RtmpRecvPkt *stored = FindInIndex(client, pkt->ChunkStreamId);
        if (stored != nullptr && MakeRoomFor(client, stored, __func__) != 0) {
            return -1;
        }
        Append(client, pkt);
    }
    if (UnlockRecvList(client, __func__) == 0 || wasStored) {
        return 0;
    }
    Unlink(client, pkt);
    return -1;
}

int RemoveRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, kRemove) != 0) {
        return -1;
    }
    return UnlockAfterRemoval(client, RemoveLocked(client, pkt));
}

void FreeRecvPkts(RtmpClient *client)
{
    (void)RemoveAll(client); // logged
}

RtmpRecvPkt *GetRecvPktFromList(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return nullptr;
    }
    RtmpRecvPkt *pkt = FindInIndex(client, static_cast<uint32_t>(chunkStreamId));
    return UnlockRecvList(client, __func__) == 0 ? pkt : nullptr;
}

int IsRecvStrmPktExists(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const bool listed = IsListed(client, pkt);
    return UnlockRecvList(client, __func__) == 0 && listed ? 0 : -1;
}

int IsKnownRecvPktStored(RtmpClient *client, const RtmpRecvPkt *pkt)
{
    // It stands in for IsRecvStrmPktExists, whose lines it writes.
    constexpr char kWho[] = "IsRecvStrmPktExists";
    if (LockRecvList(client, kWho) != 0) {
        return -1;
    }
    const bool stored = IsStored(client, pkt);
    return UnlockRecvList(client, kWho) == 0 && stored ? 0 : -1;
}

int32_t GetPayloadHdrSize(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const RtmpRecvPkt *pkt = FindInIndex(client, static_cast<uint32_t>(chunkStreamId));
    const int32_t length = pkt != nullptr ? static_cast<int32_t>(pkt->MsgLength) : -1;
    return UnlockRecvList(client, __func__) == 0 ? length : -1;
}

int32_t GetMsgTypeId(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const RtmpRecvPkt *pkt = FindInIndex(client, static_cast<uint32_t>(chunkStreamId));
    const int32_t typeId = pkt != nullptr ? static_cast<int32_t>(pkt->MsgTypeId) : -1;
    return UnlockRecvList(client, __func__) == 0 ? typeId : -1;
}

int AbandonMessage(RtmpClient *client, uint32_t chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    RtmpRecvPkt *pkt = FindInIndex(client, chunkStreamId);
    if (pkt != nullptr) {
        pkt->Complete = 1; // the next chunk begins a message, and nobody is handed this one
    }
    return UnlockRecvList(client, __func__);
}
