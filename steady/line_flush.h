// What a line sends, and how far it is behind.
#pragma once

#include "steady/records.h"

extern "C" {

// How far a player is behind its session's newest message.
typedef struct SteadyBehind {
    uint32_t Pictures;
    uint32_t Milliseconds;
} SteadyBehind;

// FlushLine sends what is due and fits. The caller holds the client's WriteLock.
void FlushLine(SteadyLine *line, uint64_t now);

// What is noted of a message that goes out: where the client's timeline is with its first byte, and that it
// has left with its last. The caller holds the client's WriteLock.
void NoteTimeOut(SteadyLine *line);
void NoteFrameOut(SteadyLine *line, const FinishedMessage *message);

// MakesProgress: the player takes what there is, or has taken something not long ago. The caller holds the
// client's WriteLock.
bool MakesProgress(const SteadyLine *line, uint64_t now);

// The caller holds the client's WriteLock.
SteadyBehind BehindOf(const SteadyLine *line);

// WaitingBytesOf returns what has not been sent yet, of the ring and of answers. The caller holds the
// client's WriteLock.
uint64_t WaitingBytesOf(const SteadyLine *line);
}
