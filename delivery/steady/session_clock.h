// The session's clock: the host's timestamps, from whatever they begin at, as one timeline that sound and
// pictures share and that only goes on.
#pragma once

#include "steady/records.h"

extern "C" {

// A record of zeros is a clock that has not begun.
typedef struct SessionClock {
    uint64_t Offset; // what is added to the host's timestamps, of either kind
    uint64_t Newest; // the latest time given out; 0: none yet
    uint64_t LastOfKind[STEADY_KINDS];
    uint64_t HostTimeOfKind[STEADY_KINDS];
    uint32_t StepOfKind[STEADY_KINDS]; // ms between the last two frames; 0: not known
    uint8_t HasKind[STEADY_KINDS];     // 0: no frame of the kind yet, or its timing is forgotten
} SessionClock;

// SessionTimeOf returns the time of a frame on the session's clock. Where the host's clock has been set (the
// timestamp steps behind the last of its kind, or more than kClockJumpMs in front of all) the timeline goes
// on by one frame, and both kinds by the host's new clock from then on. Times begin far above 0, so that the
// difference to any earlier one of the same player is not negative.
uint64_t SessionTimeOf(SessionClock *clock, enum SteadyKind kind, uint64_t hostTime);

// ForgetTiming: the next frame, whatever its timestamp, stands one frame behind the last one.
void ForgetTiming(SessionClock *clock);
}
