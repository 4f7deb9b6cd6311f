// Finishing a frame: its message as the bytes that go on the wire, once for all players.
#pragma once

#include "delivery/write/frame.h"
#include "steady/records.h"

extern "C" {

// FinishFrame lays out chunk headers, FLV tag header and frame behind each other. Time and header difference
// are for PlaceMessage to fill, when the message's turn has come. Null: no memory, or a frame longer than a
// message can be (logged).
FinishedMessage *FinishFrame(SteadyStream *stream, RtmpFrame *frame);

// PlaceMessage gives the message its time on the session's clock, and appends it to the ring. A time in front
// of the last one of its kind becomes that; what a header cannot say of a long pause, the next one does.
void PlaceMessage(SteadyStream *stream, FinishedMessage *message, uint64_t time);
}
