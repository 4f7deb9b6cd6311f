#include "serve/accept.h"

#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "net/socket_io.h"
#include "rtmpcast/host.h"
#include "serve/serve.h"
#include "serve/steady_accept.h"
#include "state/client.h"
#include "state/server_hold.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// Null when the peer's address or a client record was not to be had (logged); the socket is then closed.
RtmpClient *ClientForConnection(RtmpServer *server, int fd, const char *who)
{
    struct sockaddr_in address = {};
    socklen_t addressLength = sizeof address;
    if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&address), &addressLength) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Can not get the IP address of client\n",
                     who);
        (void)RtmpCloseSocket(LoggerOf(server), &fd); // logged
        return nullptr;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, fd, text, address.sin_port, nullptr);
    if (client == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: New Rtmp client creation failed\n", who);
        (void)RtmpCloseSocket(LoggerOf(server), &fd); // logged
        return nullptr;
    }
    client->PlayerFlags = LoadShared(&server->PlayerFlags);
    return client;
}

void GiveUpClient(RtmpServer *server, RtmpClient *client, int fd, const char *who)
{
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot create serve rtmp client thread\n",
                 who);
    if (DestroyRtmpClient(client) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Destroying rtmp client failed\n", who);
        // KEPT: the record, whose lists are empty, is left allocated. Required.
    }
    (void)RtmpCloseSocket(LoggerOf(server), &fd); // logged
}

void StartServing(RtmpServer *server, RtmpClient *client, const char *who)
{
    const int fd = client->Socket;
    RtmpThread thread;
    HoldServer(server);
    // The thread stores its own handle: once it runs, the record may be gone at any time.
    if (RtmpThreadCreate(&thread, ServeAcceptedClient, client) != 0) {
        GiveUpClient(server, client, fd, who);
        (void)ReleaseServer(server); // never the last: the server's creator waits for this thread
    }
}

void AnnounceListening(RtmpServer *server, const char *who)
{
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Waiting for RTMP client connection on %d\n", who,
                 server->RtmpPort);
    WITHOUT_CANCEL int restore = ForbidCancel();
    KelvoraSyslog("RTMP", "RTMP server started on port %d\n", server->RtmpPort);
}

} // namespace

void *AcceptRtmpConnectionThread(void *argument)
{
    if (argument == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid thread input arguments\n", __func__);
        RtmpThreadDetach(RtmpGetSelfThreadHandle());
        RtmpThreadExit(RtmpGetSelfThreadHandle());
    }
    RtmpServer *server = static_cast<RtmpServer *>(argument);
    while (LoadShared(&server->RtmpSocket) != -1) {
        // KEPT: both lines before every accept, not only at the start. Required.
        AnnounceListening(server, __func__);
        int fd = accept(LoadShared(&server->RtmpSocket), nullptr, nullptr);
        if (LoadShared(&server->Service) != nullptr) {
            AcceptPlayersSteadily(server, fd);
            fd = -1; // it returns when nobody is accepted any more
        }
        if (fd == -1) {
            // KEPT: whatever the reason, lack of descriptors included, nobody is accepted any more. Required.
            RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Exiting RTMP connection accept thread\n",
                         __func__);
            break;
        }
        RtmpClient *client = ClientForConnection(server, fd, __func__);
        if (client != nullptr) {
            StartServing(server, client, __func__);
        }
    }
    RtmpThreadExit(RtmpGetSelfThreadHandle());
}
