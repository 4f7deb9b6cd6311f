// Where a player is in the ring, what it gets next, and under which header.
#pragma once

#include "steady/records.h"

extern "C" {

// PlaceAtBeginning has the player go on where newcomers begin, or, with `again`, go on with its timeline
// there: behind a pause.
void PlaceAtBeginning(SteadyPlace *place, int again);

// FindPlace puts a player that begins anew, or that fell out of the ring, on the newest message to begin
// with; messages in front of `joined` are none. It returns how many messages one that fell out has missed.
// `restarted`: it fell out, and goes on.
uint64_t FindPlace(SteadyStream *stream, SteadyPlace *place, uint64_t joined, bool *restarted);

// StepOver moves the place behind a message, and writes the header that the player needs in place of the
// shared one; it returns its length, 0 for the shared one, or STEP_SKIPPED: the player does not get this one.
enum { STEP_SKIPPED = -1 };
int StepOver(SteadyPlace *place, const FinishedMessage *message, uint32_t msgStreamId,
             uint8_t header[kOwnHeaderMost]);

// TimeOnTimeline returns where the player's timeline is, in ms.
uint64_t TimeOnTimeline(const SteadyPlace *place);
}
