// The end of a server's steady road. Nothing to do on the default road.
#pragma once

#include "steady/records.h"

extern "C" {

// EndConnections ends all connections that the server has accepted on it, joined to a session or not, and
// returns when they have left. The listeners of the server are closed, and the one of TLS is closed here.
void EndConnections(RtmpServer *server);

// EndService ends the keeper and frees the service. The connections have left, and the sessions are gone.
void EndService(RtmpServer *server);
}
