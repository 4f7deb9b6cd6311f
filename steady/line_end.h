// The end of a connection on the steady road, and the time that its peer has.
#pragma once

#include "steady/records.h"

extern "C" {

// SetDeadline gives the peer `milliseconds` from now for `wait`; 0 takes the deadline away.
void SetDeadline(SteadyLine *line, enum SteadyWait wait, uint32_t milliseconds);

// EndLine ends the connection: its socket is shut down, its thread leaves. Only the first reason counts. The
// caller holds SteadyService.Lock or the client's WriteLock, or is the thread that serves the client.
void EndLine(SteadyLine *line, enum SteadyEnd reason);
}
