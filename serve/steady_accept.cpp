#include "serve/steady_accept.h"

#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "serve/steady_serve.h"
#include "state/admission.h"

namespace {

SteadyListener ListenerOf(SteadyService *service, int socket, uint8_t speaksTls)
{
    return {service,
            socket,
            RTMP_CONN_RTMP,
            speaksTls,
            STEADY_WAITS_FOR_HANDSHAKE,
            service->Limits.HandshakeMilliseconds,
            ServeSteadily};
}

void Announce(RtmpServer *server, const char *protocol, uint16_t port)
{
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Waiting for %s clients on %d\n",
                 "AcceptSteadily", protocol, port);
    WITHOUT_CANCEL int restore = ForbidCancel();
    KelvoraSyslog("RTMP", "%s server started on port %d\n", protocol, port);
}

} // namespace

void AcceptPlayersSteadily(RtmpServer *server, int fd)
{
    const SteadyListener listener =
        ListenerOf(LoadShared(&server->Service), LoadShared(&server->RtmpSocket), 0);
    Announce(server, "RTMP", server->RtmpPort);
    AcceptSteadily(&listener, fd);
}

void *AcceptTlsPlayersThread(void *argument)
{
    SteadyService *service = static_cast<SteadyService *>(argument);
    const SteadyListener listener = ListenerOf(service, service->TlsSocket, 1);
    Announce(service->Server, "RTMPS", service->Limits.TlsPort);
    AcceptSteadily(&listener, -1);
    return nullptr;
}
