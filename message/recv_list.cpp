#include "message/recv_list.h"

#include "amf/object.h"
#include "net/log.h"
#include "net/platform.h"

#include <stdlib.h>

namespace {

// The walks below are made with the list locked.

RtmpRecvPkt *FindByChunkStream(const RtmpClient *client, uint32_t chunkStreamId)
{
    RtmpRecvPkt *pkt = client->RecvPktHead;
    while (pkt != nullptr && pkt->ChunkStreamId != chunkStreamId) {
        pkt = pkt->Next;
    }
    return pkt;
}

bool IsStored(const RtmpClient *client, const RtmpRecvPkt *wanted)
{
    const RtmpRecvPkt *pkt = client->RecvPktHead;
    while (pkt != nullptr && pkt != wanted) {
        pkt = pkt->Next;
    }
    return pkt != nullptr;
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
}

// Of a decoded list the strings belong to the payload; the holder belongs to the packet.
int FreeDecodedCommand(RtmpServer *server, RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND || pkt->Result.Amf == nullptr) {
        return 0;
    }
    if (FreeAmfObject(server, pkt->Result.Amf, 0) != 0) {
        return -1;
    }
    free(pkt->Result.Amf);
    pkt->Result.Amf = nullptr;
    return 0;
}

void FreeRecord(RtmpRecvPkt *pkt)
{
    free(pkt->PayloadData);
    free(pkt);
}

// RemoveStored takes one packet out and frees it. A packet whose command could not be freed stays stored,
// so that nothing points to freed memory.
int RemoveStored(RtmpClient *client, RtmpRecvPkt *pkt, const char *who)
{
    if (FreeDecodedCommand(client->Server, pkt) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Can not free memory allocated for amf object\n", who);
        return -1;
    }
    Unlink(client, pkt);
    FreeRecord(pkt);
    return 0;
}

int RemoveAll(RtmpClient *client, const char *who)
{
    while (client->RecvPktHead != nullptr) {
        if (RemoveStored(client, client->RecvPktHead, who) != 0) {
            return -1;
        }
    }
    return 0;
}

int RemoveLocked(RtmpClient *client, RtmpRecvPkt *pkt, const char *who)
{
    if (client->RecvPktHead == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: No Rtmp Recv stream packet list\n",
                     who);
        return -1;
    }
    if (pkt == nullptr) {
        return RemoveAll(client, who);
    }
    return IsStored(client, pkt) ? RemoveStored(client, pkt, who) : -1;
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

int FreeRecvPkt(RtmpServer *server, RtmpRecvPkt *pkt)
{
    if (FreeDecodedCommand(server, pkt) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Can not free memory allocated for amf object\n", __func__);
        return -1;
    }
    FreeRecord(pkt);
    return 0;
}

int AddRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    if (IsStored(client, pkt)) {
        return UnlockRecvList(client, __func__);
    }
    RtmpRecvPkt *stored = FindByChunkStream(client, pkt->ChunkStreamId);
    if (stored != nullptr) {
        // RemoveRecvPkt locks for itself. Only the serving thread changes the list, so `stored` stays.
        if (RtmpMutexUnlock(&client->RecvStrmListLock) != 0) {
            RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                         "ERROR: %s: Cannot Unlock receive packet list\n", __func__);
            return -1;
        }
        if (RemoveRecvPkt(client, stored) != 0 || LockRecvList(client, __func__) != 0) {
            return -1;
        }
    }
    Append(client, pkt);
    if (UnlockRecvList(client, __func__) != 0) {
        Unlink(client, pkt); // whoever hears of a failure still owns the packet
        return -1;
    }
    return 0;
}

int RemoveRecvPkt(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const int status = RemoveLocked(client, pkt, __func__);
    if (RtmpMutexUnlock(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot Unlock receive packet list\n", __func__);
        return -1;
    }
    return status;
}

RtmpRecvPkt *GetRecvPktFromList(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return nullptr;
    }
    RtmpRecvPkt *pkt = FindByChunkStream(client, static_cast<uint32_t>(chunkStreamId));
    return UnlockRecvList(client, __func__) == 0 ? pkt : nullptr;
}

int IsRecvStrmPktExists(RtmpClient *client, RtmpRecvPkt *pkt)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const bool stored = IsStored(client, pkt);
    return UnlockRecvList(client, __func__) == 0 && stored ? 0 : -1;
}

int32_t GetPayloadHdrSize(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const RtmpRecvPkt *pkt = FindByChunkStream(client, static_cast<uint32_t>(chunkStreamId));
    const int32_t length = pkt != nullptr ? static_cast<int32_t>(pkt->MsgLength) : -1;
    return UnlockRecvList(client, __func__) == 0 ? length : -1;
}

int32_t GetMsgTypeId(RtmpClient *client, int chunkStreamId)
{
    if (LockRecvList(client, __func__) != 0) {
        return -1;
    }
    const RtmpRecvPkt *pkt = FindByChunkStream(client, static_cast<uint32_t>(chunkStreamId));
    const int32_t typeId = pkt != nullptr ? static_cast<int32_t>(pkt->MsgTypeId) : -1;
    return UnlockRecvList(client, __func__) == 0 ? typeId : -1;
}
