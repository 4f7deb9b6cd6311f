// Buffers of finished messages, used again: once a session runs, its frames allocate nothing.
#pragma once

#include "steady/records.h"

extern "C" {

// TakeMessage returns a message with room for `length` bytes and one reference, the caller's; its fields are
// zero but for Length. Null: no memory (not logged).
FinishedMessage *TakeMessage(SteadyStream *stream, uint32_t length);

// DropMessage gives a reference back; with the last one the buffer is free. Null is nothing. The caller does
// not hold RingLock; DropMessageLocked is for one that does.
void DropMessage(SteadyStream *stream, FinishedMessage *message);
void DropMessageLocked(SteadyStream *stream, FinishedMessage *message);

// FreePool frees the buffers that nobody uses.
void FreePool(SteadyStream *stream);
}
