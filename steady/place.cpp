#include "steady/place.h"

#include "net/atomic.h"
#include "net/scope.h"
#include "steady/shared_header.h"

namespace {

constexpr uint64_t kOneFrameMs = 33; // between what came before a pause and what comes behind it

bool HasSent(const SteadyPlace *place, uint8_t kind)
{
    return place->LastOfKind[kind] != kNoMessage;
}

// The first message behind "play" is the player's 0; behind a pause, the next frame of its timeline.
void SetBase(SteadyPlace *place, const FinishedMessage *message)
{
    const bool continues = HasSent(place, STEADY_VIDEO) || HasSent(place, STEADY_AUDIO);
    place->Base = message->Time - (continues ? TimeOnTimeline(place) + kOneFrameMs : 0);
    place->IsBased = 1;
}

void MoveBehind(SteadyPlace *place, const FinishedMessage *message)
{
    place->LastOfKind[message->Kind] = message->Number;
    place->Pictures = message->Pictures;
    place->Time = message->Time;
}

// What does not fit the field (4.6 hours) is told by the next header, which is the player's own again.
int PutOwnHeader(SteadyPlace *place, const FinishedMessage *message, uint64_t time, uint32_t msgStreamId,
                 uint8_t *header)
{
    const enum SteadyKind kind = static_cast<enum SteadyKind>(message->Kind);
    const bool isFirst = !HasSent(place, message->Kind);
    const uint64_t wanted = isFirst ? time : time - place->TimeOfKind[kind];
    const uint64_t told = wanted < kMostDelta ? wanted : kMostDelta;
    place->TimeOfKind[kind] += told;
    MoveBehind(place, message);
    if (told < wanted) {
        place->LastOfKind[kind] = kOtherMessage;
    }
    if (isFirst) {
        PutFirstHeader(header, kind, message->BodyLength, told, msgStreamId);
        return kOwnHeaderMost;
    }
    PutSharedHeader(header, kind, message->BodyLength, told);
    return kSharedHeaderSize;
}

// Late sound, from in front of the beginning, or of what the player has had already.
bool IsLate(const SteadyPlace *place, const FinishedMessage *message)
{
    const int64_t time = static_cast<int64_t>(message->Time - place->Base);
    return time < 0 || static_cast<uint64_t>(time) < place->TimeOfKind[message->Kind];
}

} // namespace

void PlaceAtBeginning(SteadyPlace *place, int again)
{
    place->Next = kNoMessage;
    place->IsBased = 0;
    for (uint8_t kind = 0; kind < STEADY_KINDS; kind++) {
        if (again != 0 && HasSent(place, kind)) {
            place->LastOfKind[kind] = kOtherMessage;
        } else {
            place->LastOfKind[kind] = kNoMessage;
            place->TimeOfKind[kind] = 0;
        }
    }
}

uint64_t FindPlace(SteadyStream *stream, SteadyPlace *place, uint64_t joined, bool *restarted)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    *restarted = false;
    if (place->Next != kNoMessage && place->Next >= stream->First) {
        return 0;
    }
    const bool fellOut = place->Next != kNoMessage;
    if (stream->Start == kNoMessage || stream->Start < (fellOut ? place->Next : joined)) {
        StoreShared(&stream->KeyFrameWanted, uint8_t{1}); // it waits for the next one
        return 0;
    }
    const uint64_t missed = fellOut ? stream->Start - place->Next : 0;
    place->Next = stream->Start;
    *restarted = fellOut;
    return missed;
}

int StepOver(SteadyPlace *place, const FinishedMessage *message, uint32_t msgStreamId,
             uint8_t header[kOwnHeaderMost])
{
    place->Next = message->Number + 1;
    if (place->IsBased == 0) {
        SetBase(place, message);
    }
    if (HasSent(place, message->Kind) && place->LastOfKind[message->Kind] == message->PreviousOfKind) {
        place->TimeOfKind[message->Kind] = message->Time - place->Base;
        MoveBehind(place, message);
        return 0;
    }
    if (IsLate(place, message)) {
        return STEP_SKIPPED;
    }
    return PutOwnHeader(place, message, message->Time - place->Base, msgStreamId, header);
}

uint64_t TimeOnTimeline(const SteadyPlace *place)
{
    const uint64_t video = place->TimeOfKind[STEADY_VIDEO];
    const uint64_t audio = place->TimeOfKind[STEADY_AUDIO];
    return video > audio ? video : audio;
}
