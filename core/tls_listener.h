// The listener of RTMP over TLS, RtmpServiceLimits.TlsPort.
#pragma once

#include "steady/records.h"

extern "C" {

// OpenTlsListener opens it and starts its accept thread; port 0: nothing to do. 0; RTMP_ERR_SOCKET,
// RTMP_ERR_BIND, RTMP_ERR_LISTEN or RTMP_ERR_THREAD_CREATE (logged as RtmpServiceSettings): there is none.
RTMP_STATUS int OpenTlsListener(SteadyService *service);

// CloseTlsListener ends the accept thread and closes the socket, if there are such.
void CloseTlsListener(SteadyService *service);
}
