#include "delivery/steady/sound_order.h"

#include "steady/message_pool.h"

namespace {

constexpr uint32_t kMostParked = 512;          // ten seconds of AAC
constexpr uint64_t kMostParkedBytes = 1 << 20; // far above ten seconds of it

FinishedMessage *TakeFirstParked(ParkedSound *sound)
{
    FinishedMessage *message = sound->First;
    sound->First = message->NextFree;
    sound->Last = sound->First != nullptr ? sound->Last : nullptr;
    sound->Count--;
    sound->Bytes -= message->Length;
    message->NextFree = nullptr;
    return message;
}

bool IsOverfull(const ParkedSound *sound)
{
    return sound->Count > kMostParked || sound->Bytes > kMostParkedBytes;
}

} // namespace

void ParkSound(ParkedSound *sound, FinishedMessage *message)
{
    message->NextFree = nullptr;
    (sound->Last != nullptr ? sound->Last->NextFree : sound->First) = message;
    sound->Last = message;
    sound->Count++;
    sound->Bytes += message->Length;
}

FinishedMessage *TakeSoundUpTo(ParkedSound *sound, uint64_t time)
{
    return sound->First != nullptr && sound->First->Time <= time ? TakeFirstParked(sound) : nullptr;
}

FinishedMessage *TakeOverdueSound(ParkedSound *sound, uint32_t waitMs)
{
    if (sound->First == nullptr) {
        return nullptr;
    }
    const bool hasWaited = sound->Last->Time - sound->First->Time > waitMs;
    return hasWaited || IsOverfull(sound) ? TakeFirstParked(sound) : nullptr;
}

void DropSound(SteadyStream *stream, ParkedSound *sound)
{
    while (sound->First != nullptr) {
        DropMessage(stream, TakeFirstParked(sound));
    }
}
