// Connections of the steady road: who is accepted, and how a connection's thread takes its leave.
#pragma once

#include "net/platform.h"
#include "steady/records.h"

extern "C" {

// A listener, and what becomes of its connections.
typedef struct SteadyListener {
    SteadyService *Service;
    int Socket;
    uint32_t ConnType;        // RTMP_CONN_...
    uint8_t SpeaksTls;        // its peers speak TLS first
    enum SteadyWait WaitsFor; // what a peer is given time for,
    uint32_t Milliseconds;    // and how much
    RtmpThreadStart Serve;    // body of a connection's thread, which is detached; its argument is the
                              // RtmpClient. It ends with LeaveSteadily
} SteadyListener;

// AcceptSteadily accepts until the listening socket is shut down. A lack that passes is waited out. `fd`: a
// connection that the listener has accepted already; -1: none.
void AcceptSteadily(const SteadyListener *listener, int fd);

// LeaveSteadily ends a connection on the thread that serves it: the answers to a refusal leave, the host is
// told, the client leaves its session and the line the service, the descriptor is closed, and the record
// freed. The server is given back, and may be gone afterwards.
void LeaveSteadily(RtmpClient *client);
}
