// Finished sound that waits for the picture that it goes in front of.
#pragma once

#include "steady/records.h"

extern "C" {

// The oldest first, linked by NextFree. A record of zeros is empty. One thread at a time.
typedef struct ParkedSound {
    FinishedMessage *First;
    FinishedMessage *Last;
    uint32_t Count;
    uint64_t Bytes;
} ParkedSound;

// ParkSound takes the message over; its Time is not in front of that of the one before it.
void ParkSound(ParkedSound *sound, FinishedMessage *message);

// TakeSoundUpTo returns the oldest message that is not later than `time`; TakeOverdueSound the oldest one
// that has waited for longer than `waitMs`, by the newest one's time, or that there is no room for any more.
// Null: there is none.
FinishedMessage *TakeSoundUpTo(ParkedSound *sound, uint64_t time);
FinishedMessage *TakeOverdueSound(ParkedSound *sound, uint32_t waitMs);

void DropSound(SteadyStream *stream, ParkedSound *sound);
}
