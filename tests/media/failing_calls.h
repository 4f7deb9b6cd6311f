// Makes single allocations and mutex calls of the library fail, and sees a value that never reaches the wire.
#pragma once

#include "rtmpcast/types.h"

// FailAllocation makes the n-th calloc from now on fail (1: the next); 0: none.
void FailAllocation(int n);

// AllocationFailed tells whether it came to that.
bool AllocationFailed();

// Locking or unlocking this very mutex fails; null: none does.
void FailLockOf(RtmpMutex *mutex);
void FailUnlockOf(RtmpMutex *mutex);

// LastBoolean returns "name=value" of the last WriteAmfBoolean.
std::string LastBoolean();
