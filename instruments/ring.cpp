#include "instruments/ring.h"

#include "net/atomic.h"
#include "net/limits.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

// Buffers grow in steps, so that frames of about the same size soon find room in any slot.
constexpr uint64_t kBufferStep = 1024;

bool OwnsCopy(const RtmpQueueBufferItem *item)
{
    return item->Fd < 1;
}

int MakeRoom(RtmpQueueBufferItem *slot, int32_t length)
{
    const uint64_t needed = static_cast<uint64_t>(length);
    if (slot->Buffer != nullptr && needed <= slot->Capacity) {
        return QUEUE_BUFFER_OK;
    }
    const uint64_t capacity = (needed / kBufferStep + 1) * kBufferStep;
    uint8_t *buffer = static_cast<uint8_t *>(realloc(slot->Buffer, capacity));
    if (buffer == nullptr) {
        slot->Data = nullptr; // the old buffer stays the slot's
        return QUEUE_BUFFER_NO_MEMORY;
    }
    slot->Buffer = buffer;
    slot->Capacity = capacity;
    return QUEUE_BUFFER_OK;
}

// Makes slot->Data a copy of `data`, or a reference when the frame has a file.
int SetData(RtmpQueueBufferItem *slot, const uint8_t *data)
{
    if (data == nullptr || !OwnsCopy(slot)) {
        slot->Data = const_cast<uint8_t *>(data);
        return QUEUE_BUFFER_OK;
    }
    if (MakeRoom(slot, slot->Length) != QUEUE_BUFFER_OK) {
        return QUEUE_BUFFER_NO_MEMORY;
    }
    memcpy(slot->Buffer, data, static_cast<uint64_t>(slot->Length));
    slot->Data = slot->Buffer;
    return QUEUE_BUFFER_OK;
}

// Forgets the frame; the buffer waits for the next one.
void ForgetFrame(RtmpQueueBufferItem *slot)
{
    uint8_t *buffer = slot->Buffer;
    const uint64_t capacity = slot->Capacity;
    *slot = {};
    slot->Buffer = buffer;
    slot->Capacity = capacity;
}

int32_t NextPosition(const RtmpQueueBuffer *ring, int32_t position)
{
    return (position + 1) % ring->Size;
}

// SlotLock is held.
void DropFlushedItem(RtmpQueueBuffer *ring)
{
    if (ring->Use == QUEUE_USE_FLUSHED) {
        RtmpQueueBufferItemReset(&ring->InUse);
    }
    ring->Use = QUEUE_USE_NOTHING;
}

// SlotLock is held.
int DropHead(RtmpQueueBuffer *ring)
{
    if (LoadShared(&ring->Count) == 0) {
        return QUEUE_BUFFER_EMPTY;
    }
    const int32_t head = LoadShared(&ring->ReadPos);
    ForgetFrame(&ring->Items[head]);
    StoreShared(&ring->ReadPos, NextPosition(ring, head));
    (void)AddShared(&ring->Count, -1); // from here on the producer may fill the slot
    return QUEUE_BUFFER_OK;
}

void TakeAllPosts(RtmpQueueBuffer *ring)
{
    while (sem_trywait(&ring->Sem) == 0) {
    }
}

// SlotLock is held.
void DiscardItems(RtmpQueueBuffer *ring)
{
    for (int32_t i = 0; i < ring->Size; i++) {
        RtmpQueueBufferItemReset(&ring->Items[i]);
    }
    StoreShared(&ring->Count, 0);
    StoreShared(&ring->ReadPos, 0);
    StoreShared(&ring->WritePos, 0);
    TakeAllPosts(ring);
}

// One post for each item that is held.
void MatchPosts(RtmpQueueBuffer *ring)
{
    TakeAllPosts(ring);
    for (int32_t left = LoadShared(&ring->Count); left > 0; left--) {
        sem_post(&ring->Sem);
    }
}

// The consumer goes on with the item it took, and with its buffer. SlotLock is held.
void DetachItemInUse(RtmpQueueBuffer *ring)
{
    if (ring->Use == QUEUE_USE_HEAD || ring->Use == QUEUE_USE_SENDING) {
        RtmpQueueBufferItem *head = &ring->Items[LoadShared(&ring->ReadPos)];
        head->Buffer = nullptr;
        head->Capacity = 0;
        ring->Use = QUEUE_USE_FLUSHED;
    }
}

int InitLocks(RtmpQueueBuffer *ring)
{
    if (sem_init(&ring->Sem, 0, 0) != 0) {
        return -1;
    }
    if (RtmpMutexInit(&ring->Lock) != 0) {
        sem_destroy(&ring->Sem);
        return -1;
    }
    if (RtmpMutexInit(&ring->SlotLock) != 0) {
        (void)RtmpMutexDestroy(&ring->Lock); // nobody has used it
        sem_destroy(&ring->Sem);
        return -1;
    }
    return 0;
}

} // namespace

RtmpQueueBuffer *RtmpQueueBufferCreate(uint32_t size)
{
    if (size >= kMostRingSlots) {
        return nullptr;
    }
    FREE_AT_EXIT RtmpQueueBuffer *ring = NewRecord<RtmpQueueBuffer>();
    if (ring == nullptr) {
        return nullptr;
    }
    ring->Size = static_cast<int32_t>(size) + 1;
    FREE_AT_EXIT RtmpQueueBufferItem *items =
        NewArray<RtmpQueueBufferItem>(static_cast<uint64_t>(ring->Size));
    if (items == nullptr || InitLocks(ring) != 0) {
        return nullptr;
    }
    ring->Items = items;
    items = nullptr;
    RtmpQueueBuffer *made = ring;
    ring = nullptr;
    return made;
}

void RtmpQueueBufferDestroy(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return;
    }
    RtmpQueueBufferReset(ring);
    (void)RtmpMutexDestroy(&ring->SlotLock); // nobody holds them any more
    (void)RtmpMutexDestroy(&ring->Lock);
    sem_destroy(&ring->Sem);
    free(ring->Items);
    free(ring);
}

void RtmpQueueBufferReset(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    DropFlushedItem(ring);
    DiscardItems(ring);
}

void RtmpQueueBufferFlush(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    DetachItemInUse(ring);
    DiscardItems(ring);
    RtmpQueueBufferSkip(ring);
}

void RtmpQueueBufferSkip(RtmpQueueBuffer *ring)
{
    ring->Breaks++;
}

int RtmpQueueBufferAdd(RtmpQueueBuffer *ring, uint32_t type, const uint8_t *data, int32_t length, int32_t fd,
                       uint64_t mapBase, uint64_t timestamp)
{
    if (ring == nullptr || data == nullptr || length < 0) {
        return QUEUE_BUFFER_NONE;
    }
    // No lock: the slot at WritePos is the producer's until Count says that it is filled.
    if (LoadShared(&ring->Count) == ring->Size) {
        return QUEUE_BUFFER_FULL;
    }
    const int32_t position = LoadShared(&ring->WritePos);
    RtmpQueueBufferItem *slot = &ring->Items[position];
    slot->Type = type;
    slot->Length = length;
    slot->Fd = fd;
    slot->MapBase = mapBase;
    slot->Timestamp = timestamp;
    slot->Breaks = ring->Breaks;
    if (SetData(slot, data) != QUEUE_BUFFER_OK) {
        return QUEUE_BUFFER_NO_MEMORY;
    }
    StoreShared(&ring->WritePos, NextPosition(ring, position));
    (void)AddShared(&ring->Count, 1);
    sem_post(&ring->Sem);
    return QUEUE_BUFFER_OK;
}

RtmpQueueBufferItem *RtmpQueueBufferTake(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return nullptr;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    DropFlushedItem(ring); // of a consumer that ended before it could release it
    if (LoadShared(&ring->Count) == 0) {
        return nullptr;
    }
    ring->InUse = ring->Items[LoadShared(&ring->ReadPos)];
    ring->Use = QUEUE_USE_HEAD;
    return &ring->InUse;
}

void RtmpQueueBufferBeginSend(RtmpQueueBuffer *ring)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    if (ring->Use == QUEUE_USE_HEAD) {
        ring->Use = QUEUE_USE_SENDING;
    }
}

bool RtmpQueueBufferRecover(RtmpQueueBuffer *ring)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    const bool wasBeingSent = ring->Use == QUEUE_USE_SENDING;
    DropFlushedItem(ring);
    if (wasBeingSent) {
        (void)DropHead(ring); // it is there: a flush would have taken it out
    }
    MatchPosts(ring);
    return wasBeingSent;
}

int RtmpQueueBufferRelease(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return QUEUE_BUFFER_NONE;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    const bool flushed = ring->Use == QUEUE_USE_FLUSHED;
    DropFlushedItem(ring);
    return flushed ? QUEUE_BUFFER_OK : DropHead(ring);
}

int RtmpQueueBufferRemove(RtmpQueueBuffer *ring)
{
    if (ring == nullptr) {
        return QUEUE_BUFFER_NONE;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&ring->SlotLock);
    DropFlushedItem(ring);
    return DropHead(ring);
}

int32_t RtmpQueueBufferCount(const RtmpQueueBuffer *ring)
{
    return LoadShared(&ring->Count);
}

void RtmpQueueBufferItemReset(RtmpQueueBufferItem *item)
{
    free(item->Buffer);
    *item = {};
}

int RtmpQueueBufferItemCopy(RtmpQueueBufferItem *dst, const RtmpQueueBufferItem *src)
{
    if (dst == nullptr || src == nullptr) {
        return QUEUE_BUFFER_NONE;
    }
    dst->Type = src->Type;
    dst->Length = src->Length;
    dst->Fd = src->Fd;
    dst->MapBase = src->MapBase;
    dst->Timestamp = src->Timestamp;
    dst->Breaks = src->Breaks;
    return SetData(dst, src->Data);
}
