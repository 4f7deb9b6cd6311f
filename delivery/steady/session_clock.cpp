#include "delivery/steady/session_clock.h"

#include "net/limits.h"

namespace {

constexpr uint64_t kBeginning = uint64_t{1} << 40;      // 35 years
constexpr uint32_t kUsualStep[STEADY_KINDS] = {33, 21}; // 30 pictures a second; AAC at 48 kHz
constexpr uint64_t kLongestStep = kLongestFrameMs;      // more is a pause

int64_t Between(uint64_t from, uint64_t to)
{
    return static_cast<int64_t>(to - from);
}

bool HasBegun(const SessionClock *clock)
{
    return clock->Newest != 0;
}

// A kind that is new, or whose timing is forgotten, is held against the other one.
bool HasJumped(const SessionClock *clock, enum SteadyKind kind, uint64_t time)
{
    const int64_t ahead = Between(clock->Newest, time);
    if (clock->HasKind[kind] != 0) {
        return Between(clock->LastOfKind[kind], time) < 0 || ahead > kClockJumpMs;
    }
    const bool isAlone = clock->HasKind[STEADY_VIDEO] == 0 && clock->HasKind[STEADY_AUDIO] == 0;
    return isAlone || ahead > kClockJumpMs || ahead < -kClockJumpMs;
}

// A kind that has paused goes on where the other one is.
uint64_t OneFrameOn(const SessionClock *clock, enum SteadyKind kind)
{
    const bool goesOn = clock->HasKind[kind] != 0 && clock->Newest - clock->LastOfKind[kind] <= kLongestStep;
    const uint32_t step = clock->StepOfKind[kind];
    return (goesOn ? clock->LastOfKind[kind] : clock->Newest) + (step != 0 ? step : kUsualStep[kind]);
}

// By the host's clock, so that a kind knows its pace also where the other one moves the offset.
void NoteStep(SessionClock *clock, enum SteadyKind kind, uint64_t hostTime)
{
    const uint64_t step = hostTime - clock->HostTimeOfKind[kind];
    if (clock->HasKind[kind] != 0 && step > 0 && step <= kLongestStep) {
        clock->StepOfKind[kind] = static_cast<uint32_t>(step);
    }
    clock->HostTimeOfKind[kind] = hostTime;
}

} // namespace

uint64_t SessionTimeOf(SessionClock *clock, enum SteadyKind kind, uint64_t hostTime)
{
    NoteStep(clock, kind, hostTime);
    uint64_t time = hostTime + clock->Offset;
    if (!HasBegun(clock)) {
        time = kBeginning;
    } else if (HasJumped(clock, kind, time)) {
        time = OneFrameOn(clock, kind);
    }
    clock->Offset = time - hostTime;
    clock->HasKind[kind] = 1;
    clock->LastOfKind[kind] = time;
    clock->Newest = time > clock->Newest ? time : clock->Newest;
    return time;
}

void ForgetTiming(SessionClock *clock)
{
    for (uint8_t kind = 0; kind < STEADY_KINDS; kind++) {
        clock->HasKind[kind] = 0;
        clock->StepOfKind[kind] = 0;
    }
}
