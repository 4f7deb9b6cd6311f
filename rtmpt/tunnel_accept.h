#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AcceptRtmptConnectionThread is the body of the RTMPT accept thread; its argument is the RtmpServer. It
// ends when the listening socket is closed.
void *AcceptRtmptConnectionThread(void *argument);

// ServeRtmptClient is the body of an RTMPT connection's thread: it sleeps. No tunnel traffic is served.
void *ServeRtmptClient(void *client);
}
