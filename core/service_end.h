// The end of a server's steady road: every connection, joined to a session or not, and the keeper.
#pragma once

#include "steady/records.h"

extern "C" {

// EndService ends all connections, waits until they have left, and frees the service. The listeners are
// closed and the sessions gone. Nothing to do on the default road.
void EndService(RtmpServer *server);
}
