#include "rtmpt/steady_tunnel.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "state/admission.h"

#include <sys/socket.h>

namespace {

// ServeTunnel is the body of a connection's thread. No tunnel traffic is served: what comes is read, until
// the peer closes or its time is up.
void *ServeTunnel(void *argument)
{
    RtmpClient *client = static_cast<RtmpClient *>(argument);
    uint8_t ignored[512];
    while (!IsToldToLeave(client) && recv(client->Socket, ignored, sizeof ignored, 0) > 0) {
    }
    LeaveSteadily(client);
    return nullptr;
}

} // namespace

void AcceptTunnelsSteadily(RtmpServer *server, int fd)
{
    SteadyService *service = LoadShared(&server->Service);
    const SteadyListener listener = {
        service,    LoadShared(&server->RtmptSocket), RTMP_CONN_RTMPT,
        0,          STEADY_WAITS_IN_TUNNEL,           service->Limits.TunnelMilliseconds,
        ServeTunnel};
    AcceptSteadily(&listener, fd);
}
