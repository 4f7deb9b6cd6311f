#include "instruments/parked_audio.h"

#include "instruments/sender_clock.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

int32_t SlotAfter(int32_t slot)
{
    return slot + 1 == int32_t{kMonitorAudioSlots} ? 0 : slot + 1;
}

void FreeCopy(RtmpPacket *packet)
{
    if (packet->Fd < 1) {
        free(packet->Data);
    }
    packet->Data = nullptr;
}

// The caller holds RingLock.
void EmptyRing(RtmpMonitor *monitor)
{
    while (monitor->AudioFirst != nullptr) {
        removeRtmpPacketFromBuffer(monitor);
    }
    monitor->AudioHead = -1;
    monitor->AudioTail = 0;
    monitor->AudioFirst = nullptr;
    monitor->AudioLast = nullptr;
    monitor->AudioCount = 0;
}

void ClearStats(RtmpMonitorStats *stats)
{
    if (stats == nullptr) {
        return;
    }
    RtmpMonitorSample *samples = stats->Samples;
    *stats = {};
    stats->Samples = samples;
    stats->HeadIndex = -1;
}

void ClearSettings(RtmpMonitor *monitor)
{
    if (monitor->AbrSettings != nullptr) {
        monitor->AbrSettings->MaxBitrate = -1;
        monitor->AbrSettings->CurrentBitrate = -1;
        monitor->AbrSettings->LastIncreaseTime = 0;
        monitor->AbrSettings->LastDecreaseTime = 0;
        monitor->AbrSettings->AtMinimum = 0;
    }
    if (monitor->DebugSettings != nullptr) {
        monitor->DebugSettings->StartTs = 0;
        monitor->DebugSettings->FramesSinceLine = 0;
        monitor->DebugSettings->Elapsed = 0;
        monitor->DebugSettings->Dropped = 0;
        monitor->DebugSettings->Reserved = 0;
    }
}

// What an overflow is logged with.
struct Overflow {
    int32_t Count;
    int32_t Head;
    int32_t Tail;
};

bool EmptyIfFull(RtmpMonitor *monitor, Overflow *overflow)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    if (monitor->AudioFirst == nullptr || monitor->AudioTail != monitor->AudioHead) {
        return false;
    }
    *overflow = {monitor->AudioCount, monitor->AudioHead, monitor->AudioTail};
    EmptyRing(monitor);
    return true;
}

void LinkParked(RtmpMonitor *monitor, const RtmpPacket *packet)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    RtmpPacket *slot = &monitor->AudioRing[monitor->AudioTail];
    *slot = *packet;
    slot->Next = nullptr;
    slot->Prev = monitor->AudioLast;
    if (monitor->AudioLast != nullptr) {
        monitor->AudioLast->Next = slot;
    } else {
        monitor->AudioFirst = slot;
        monitor->AudioHead = monitor->AudioTail;
    }
    monitor->AudioLast = slot;
    monitor->AudioTail = SlotAfter(monitor->AudioTail);
    monitor->AudioCount++;
}

// The caller holds RingLock; there is one.
void TakeFirst(RtmpMonitor *monitor, RtmpPacket *taken)
{
    RtmpPacket *first = monitor->AudioFirst;
    *taken = *first;
    first->Fd = 1; // the copy goes with `taken`
    removeRtmpPacketFromBuffer(monitor);
}

} // namespace

int copyRtmpPacketToBuffer(RtmpPacket *slot, RtmpSession *session, const uint8_t *data, int32_t length,
                           int32_t fd, uint64_t mapBase, uint64_t prevTimestamp, uint64_t delta,
                           uint32_t kind, uint32_t mediaType)
{
    uint8_t *bytes = const_cast<uint8_t *>(data);
    if (fd < 1) {
        bytes = NewArray<uint8_t>(static_cast<uint64_t>(length));
        if (bytes == nullptr) {
            RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR, "ERROR: %s: Can not calloc for buffer\n",
                         __func__);
            return -1;
        }
        memcpy(bytes, data, static_cast<size_t>(length));
    }
    slot->Session = session;
    slot->Data = bytes;
    slot->Length = length;
    slot->Fd = fd;
    slot->MapBase = mapBase;
    slot->PrevTimestamp = prevTimestamp;
    slot->Delta = delta;
    slot->Kind = kind;
    slot->MediaType = mediaType;
    return 0;
}

int addRtmpPacketToBuffer(RtmpMonitor *monitor, RtmpSession *session, const uint8_t *data, int32_t length,
                          int32_t fd, uint64_t mapBase, uint64_t prevTimestamp, uint64_t delta, uint32_t kind,
                          uint32_t mediaType)
{
    // The host's logger is called without the lock, which the last client that leaves waits for. Frames are
    // added by one thread, so that a ring that was not full is not full when the copy has been made.
    Overflow overflow;
    if (EmptyIfFull(monitor, &overflow)) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Audio Packet Overflow : %d Total (h:%d,t:%d)\n", __func__, overflow.Count,
                     overflow.Head, overflow.Tail);
        return -1;
    }
    RtmpPacket packet = {};
    if (copyRtmpPacketToBuffer(&packet, session, data, length, fd, mapBase, prevTimestamp, delta, kind,
                               mediaType) != 0) {
        return -1;
    }
    LinkParked(monitor, &packet);
    return 0;
}

void removeRtmpPacketFromBuffer(RtmpMonitor *monitor)
{
    RtmpPacket *first = monitor->AudioFirst;
    if (first == nullptr) {
        return;
    }
    FreeCopy(first);
    const int32_t next = SlotAfter(monitor->AudioHead);
    if (next != monitor->AudioTail) {
        monitor->AudioHead = next;
        monitor->AudioFirst = &monitor->AudioRing[next];
        monitor->AudioFirst->Prev = nullptr;
    } else {
        monitor->AudioFirst = nullptr;
        monitor->AudioLast = nullptr;
    }
    monitor->AudioCount--;
}

int TakeParkedAudio(RtmpMonitor *monitor, uint64_t videoDelta, RtmpPacket *taken)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    const RtmpPacket *first = monitor->AudioFirst;
    if (first == nullptr || LoadShared(&monitor->LastAudioRtmpTs) + first->Delta >=
                                LoadShared(&monitor->LastVideoRtmpTs) + videoDelta) {
        return 0;
    }
    TakeFirst(monitor, taken);
    return 1;
}

int TakeParkedAudioBefore(RtmpMonitor *monitor, uint64_t videoTime, RtmpPacket *taken)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    const RtmpPacket *first = monitor->AudioFirst;
    if (first == nullptr || !IsSoundDue(TimeOfParked(first), videoTime)) {
        return 0;
    }
    TakeFirst(monitor, taken);
    return 1;
}

uint64_t TimeOfParked(const RtmpPacket *packet)
{
    return packet->PrevTimestamp + packet->Delta;
}

int RtmpMonitorClear(RtmpSession *session)
{
    RtmpMonitor *monitor = LoadShared(&session->Monitor);
    if (monitor == nullptr) {
        return 0;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    monitor->LastAudioTs = 0;
    monitor->LastVideoTs = 0;
    StoreShared(&monitor->LastVideoRtmpTs, static_cast<uint64_t>(0));
    StoreShared(&monitor->LastAudioRtmpTs, static_cast<uint64_t>(0));
    EmptyRing(monitor);
    ClearStats(monitor->Stats);
    ClearSettings(monitor);
    return 0;
}
