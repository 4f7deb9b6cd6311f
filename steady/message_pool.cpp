#include "steady/message_pool.h"

#include "net/atomic.h"
#include "net/record.h"
#include "net/scope.h"

namespace {

constexpr uint32_t kSmallestRoom = 512; // bytes of class 0
constexpr uint64_t kMostFreeBytes = 2 << 20;

uint64_t RoomOf(uint32_t sizeClass)
{
    return static_cast<uint64_t>(kSmallestRoom) << sizeClass;
}

// The last class holds the longest RTMP message: 2^24 bytes.
uint32_t ClassFor(uint32_t length)
{
    uint32_t sizeClass = 0;
    while (sizeClass + 1 < kPoolClasses && RoomOf(sizeClass) < length) {
        sizeClass++;
    }
    return sizeClass;
}

FinishedMessage *NewMessage(uint32_t sizeClass, uint32_t length)
{
    const uint64_t room = RoomOf(sizeClass) > length ? RoomOf(sizeClass) : length;
    FinishedMessage *message = static_cast<FinishedMessage *>(malloc(sizeof *message + room));
    if (message != nullptr) {
        message->Class = RoomOf(sizeClass) < length ? kPoolClasses : sizeClass;
    }
    return message;
}

FinishedMessage *TakeFree(SteadyStream *stream, uint32_t sizeClass)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    FinishedMessage *message = stream->Free[sizeClass];
    if (message != nullptr) {
        stream->Free[sizeClass] = message->NextFree;
        stream->FreeBytes -= RoomOf(sizeClass);
    }
    return message;
}

// Longer ones than the last class has room for, and more than are worth keeping, are freed.
bool IsKept(const SteadyStream *stream, const FinishedMessage *message)
{
    return message->Class < kPoolClasses && stream->FreeBytes + RoomOf(message->Class) <= kMostFreeBytes;
}

} // namespace

FinishedMessage *TakeMessage(SteadyStream *stream, uint32_t length)
{
    const uint32_t sizeClass = ClassFor(length);
    FinishedMessage *message = TakeFree(stream, sizeClass);
    if (message == nullptr) {
        message = NewMessage(sizeClass, length);
    }
    if (message == nullptr) {
        return nullptr;
    }
    const uint32_t kept = message->Class;
    *message = {};
    message->Class = kept;
    message->References = 1;
    message->Length = length;
    message->Bytes = reinterpret_cast<uint8_t *>(message + 1);
    return message;
}

void DropMessageLocked(SteadyStream *stream, FinishedMessage *message)
{
    if (message == nullptr || AddShared(&message->References, UINT32_MAX) > 0) {
        return;
    }
    if (!IsKept(stream, message)) {
        free(message);
        return;
    }
    message->NextFree = stream->Free[message->Class];
    stream->Free[message->Class] = message;
    stream->FreeBytes += RoomOf(message->Class);
}

void DropMessage(SteadyStream *stream, FinishedMessage *message)
{
    if (message != nullptr) {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
        DropMessageLocked(stream, message);
    }
}

void FreePool(SteadyStream *stream)
{
    for (FinishedMessage *&first : stream->Free) {
        while (first != nullptr) {
            FinishedMessage *next = first->NextFree;
            free(first);
            first = next;
        }
    }
    stream->FreeBytes = 0;
}
