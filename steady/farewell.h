// The last moments of a connection that is refused.
#pragma once

#include "steady/records.h"

extern "C" {

// SeeAnswersOut waits, for a moment at most, until the answers have left, says that no more will come, and
// reads what the peer still sends: a socket that is closed with unread bytes resets the connection, and the
// peer may lose what it has not read yet. A second end of the line (EndLine) cuts it short. Called by the
// thread that serves the client.
void SeeAnswersOut(SteadyLine *line);
}
