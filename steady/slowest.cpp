#include "steady/slowest.h"

#include "net/platform.h"
#include "net/scope.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"

namespace {

constexpr uint64_t kCatchUpMs = 5000; // for the beginning in the ring

// MoveLook notes what has changed since the look before, and returns the bytes of pictures.
uint64_t MoveLook(SteadyLine *line, const RingNow *ring)
{
    SteadyLook *look = &line->Look;
    const uint64_t bytes = look->PictureBytes - look->PictureBytesSeen;
    look->PictureBytesSeen = look->PictureBytes;
    if (look->BytesSeen != line->BytesOut || line->WantsRoom == 0) {
        look->BytesSeen = line->BytesOut;
        const uint64_t out = line->Place.Pictures;
        look->PicturesBehind = static_cast<uint32_t>(ring->Pictures > out ? ring->Pictures - out : 0);
    }
    look->HasCaughtUp |= line->WantsRoom == 0 ? 1 : 0;
    return bytes;
}

// Who waits for a key frame waits for the host, and not for the network.
bool IsInRing(const SteadyLine *line, const RingNow *ring)
{
    return line->Place.IsBased != 0 && line->Place.Next != kNoMessage && line->Place.Next >= ring->First;
}

bool Counts(const SteadyLine *line, const RingNow *ring)
{
    const uint64_t now = ring->Milliseconds;
    return IsInRing(line, ring) && MakesProgress(line, now) &&
           (line->Look.HasCaughtUp != 0 || MillisecondsSince(line->Look.Begun, now) > kCatchUpMs);
}

} // namespace

RingNow LookAtRing(SteadyStream *stream)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    return {RtmpGetSystemTime(), stream->First, stream->Pictures};
}

void LookAtLine(SteadyLine *line, const RingNow *ring, SteadySlowest *slowest)
{
    const uint64_t bytes = MoveLook(line, ring);
    if (!Counts(line, ring)) {
        return;
    }
    if (slowest->Counted == 0 || line->Look.PicturesBehind > slowest->Pictures) {
        slowest->Pictures = line->Look.PicturesBehind;
        slowest->Bytes = bytes;
    }
    slowest->Counted++;
}
