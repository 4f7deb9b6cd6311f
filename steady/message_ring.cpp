#include "steady/message_ring.h"

#include "net/atomic.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "steady/message_pool.h"

namespace {

constexpr uint64_t kFewestSlots = 1024;
constexpr uint64_t kMostSlots = 65536;
constexpr uint64_t kMessagesPerSecond = 256; // more than pictures and sound of any encoder

uint32_t SlotsFor(const RtmpServiceLimits *limits)
{
    const uint64_t wanted = static_cast<uint64_t>(limits->RingMilliseconds) * kMessagesPerSecond / 1000;
    uint64_t slots = kFewestSlots;
    while (slots < wanted && slots < kMostSlots) {
        slots *= 2;
    }
    return static_cast<uint32_t>(slots);
}

// The callers of what follows hold RingLock.
FinishedMessage **SlotOf(const SteadyStream *stream, uint64_t number)
{
    return &stream->Slots[number & (stream->SlotCount - 1)];
}

void LetGoOfOldest(SteadyStream *stream)
{
    FinishedMessage **slot = SlotOf(stream, stream->First);
    stream->Bytes -= (*slot)->Length;
    DropMessageLocked(stream, *slot);
    *slot = nullptr;
    stream->First++;
    if (stream->Start != kNoMessage && stream->Start < stream->First) {
        stream->Start = kNoMessage;
    }
}

uint64_t SpanOf(const SteadyStream *stream)
{
    const uint64_t newest = (*SlotOf(stream, stream->Next - 1))->Time;
    const uint64_t oldest = (*SlotOf(stream, stream->First))->Time;
    return newest > oldest ? newest - oldest : 0; // sound may come late
}

bool IsBeyondLimits(const SteadyStream *stream)
{
    const RtmpServiceLimits *limits = &stream->Service->Limits;
    return stream->Bytes > limits->RingBytes || SpanOf(stream) > limits->RingMilliseconds;
}

void NumberMessage(SteadyStream *stream, FinishedMessage *message)
{
    message->Number = stream->Next;
    message->PreviousOfKind = stream->LastOfKind[message->Kind];
    stream->Pictures += message->Kind == STEADY_VIDEO ? 1 : 0;
    message->Pictures = stream->Pictures;
    stream->LastOfKind[message->Kind] = message->Number;
    stream->TimeOfKind[message->Kind] = message->Time;
    if (message->IsStart != 0) {
        stream->Start = message->Number;
        StoreShared(&stream->KeyFrameWanted, uint8_t{0});
    }
}

} // namespace

SteadyStream *NewSteadyStream(SteadyService *service, RtmpSession *session)
{
    SteadyStream *stream = NewRecord<SteadyStream>();
    if (stream == nullptr) {
        return nullptr;
    }
    stream->SlotCount = SlotsFor(&service->Limits);
    stream->Slots = NewArray<FinishedMessage *>(stream->SlotCount);
    if (stream->Slots == nullptr) {
        free(stream);
        return nullptr;
    }
    stream->Service = service;
    stream->Session = session;
    stream->RingLock = kFreshMutex;
    stream->PlayersLock = kFreshMutex;
    stream->Start = kNoMessage;
    stream->LastOfKind[STEADY_VIDEO] = kNoMessage;
    stream->LastOfKind[STEADY_AUDIO] = kNoMessage;
    return stream;
}

void FreeSteadyStream(SteadyStream *stream)
{
    if (stream != nullptr) {
        EmptyRing(stream);
        FreePool(stream);
        free(stream->Slots);
        free(stream);
    }
}

void AppendMessage(SteadyStream *stream, FinishedMessage *message)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    if (stream->Next - stream->First == stream->SlotCount) {
        LetGoOfOldest(stream);
    }
    NumberMessage(stream, message);
    *SlotOf(stream, stream->Next) = message;
    stream->Next++;
    stream->Bytes += message->Length;
    while (stream->Next - stream->First > 1 && IsBeyondLimits(stream)) {
        LetGoOfOldest(stream);
    }
}

uint32_t ReferMessages(SteadyStream *stream, uint64_t from, FinishedMessage **messages, uint32_t most)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    uint32_t count = 0;
    for (uint64_t number = from; number >= stream->First && number < stream->Next && count < most; number++) {
        messages[count] = *SlotOf(stream, number);
        (void)AddShared(&messages[count]->References, uint32_t{1});
        count++;
    }
    return count;
}

void TrimRing(SteadyStream *stream, uint64_t needed)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    const uint64_t start = stream->Start != kNoMessage ? stream->Start : stream->Next;
    const uint64_t keep = needed < start ? needed : start;
    while (stream->First < keep && stream->First < stream->Next) {
        LetGoOfOldest(stream);
    }
}

void EmptyRing(SteadyStream *stream)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    while (stream->First < stream->Next) {
        LetGoOfOldest(stream);
    }
    stream->First++; // a number that no message gets: also who has got everything has fallen out
    stream->Next++;
}
