// The last moments of a connection: of one that is refused, and of a publisher's that is ended.
#pragma once

#include "steady/records.h"

extern "C" {

// SeeAnswersOut waits, for a moment at most, until the answers have left, says that no more will come, and
// reads what the peer still sends: a socket that is closed with unread bytes resets the connection, and the
// peer may lose what it has not read yet. A second end of the line (EndLine) cuts it short. Called by the
// thread that serves the client.
void SeeAnswersOut(SteadyLine *line);

// HasFramesWaiting tells whether the ring has messages that the client has not been sent yet.
bool HasFramesWaiting(const SteadyLine *line);

// SeeFramesOut sends the client what the ring holds now, SeeRepliesOut what is half out and the answers. Both
// wait until it has left, the connection is over, or `until` (ms of RtmpGetSystemTime) has come. Called by
// the thread that serves the client, which holds no lock of the client's.
void SeeFramesOut(SteadyLine *line, uint64_t until);
void SeeRepliesOut(SteadyLine *line, uint64_t until);
}
