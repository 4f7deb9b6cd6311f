// The thread of a session that writes to its players, in sender mode 1. It waits for frames and for nothing
// else, and is ended by being told so.
#pragma once

#include "delivery/steady/sender_record.h"

extern "C" {

// EnsureFlushThread starts the thread where there is none; it inherits its creator's scheduling. 0; -1: it
// could not be started (not logged).
RTMP_STATUS int EnsureFlushThread(SteadyStream *stream);

// WakeFlushThread has it write what is due. Many calls before it comes to that are as one.
void WakeFlushThread(SteadySender *sender);

// EndFlushThread ends the thread, if there is one, and returns when it has ended.
void EndFlushThread(SteadySender *sender);
}
