#include "rtmpt/tunnel_accept.h"

#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/socket_io.h"
#include "rtmpt/steady_tunnel.h"
#include "state/client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void DropConnection(RtmpServer *server, int fd)
{
    (void)RtmpCloseSocket(LoggerOf(server), &fd); // logs what fails, and there is nothing else to do about it
}

// A client whose thread could not be started has empty packet lists, so that DestroyRtmpClient refuses it.
void DiscardUnservedClient(RtmpServer *server, RtmpClient *client, const char *caller)
{
    if (DestroyRtmpClient(client) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Destroying rtmp client failed\n", caller);
        FreeClientRecord(client);
    }
}

// Makes the client record of an accepted connection and starts its thread. -1: the connection is to be
// dropped (logged in the name of `caller`).
int StartTunnelClient(RtmpServer *server, int fd, const struct sockaddr_in *peer, const char *caller)
{
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer->sin_addr, address, sizeof address);
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMPT, fd, address, peer->sin_port, nullptr);
    if (client == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: New Rtmp client creation failed\n",
                     caller);
        return -1;
    }
    if (RtmpThreadCreate(&client->ServeThread, ServeRtmptClient, client) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot create serve rtmp client thread\n",
                     caller);
        DiscardUnservedClient(server, client, caller);
        return -1;
    }
    return 0;
}

} // namespace

void *AcceptRtmptConnectionThread(void *argument)
{
    RtmpServer *server = static_cast<RtmpServer *>(argument);
    if (server == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Invalid thread input arguments\n",
                     __func__);
        (void)RtmpThreadDetach(RtmpGetSelfThreadHandle()); // the thread has no caller to report to
        RtmpThreadExit(RtmpGetSelfThreadHandle());
    }

    while (LoadShared(&server->RtmptSocket) != -1) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Waiting for RTMPT client connection on %d\n",
                     __func__, server->RtmptPort);
        int fd = accept(LoadShared(&server->RtmptSocket), nullptr, nullptr);
        if (LoadShared(&server->Service) != nullptr) {
            AcceptTunnelsSteadily(server, fd);
            fd = -1; // it returns when nobody is accepted any more
        }
        if (fd == -1) {
            break; // RtmpServerDestroy closed the listening socket
        }
        struct sockaddr_in peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &length) != 0) {
            RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                         "ERROR: %s: Can not get the IP address of client\n", __func__);
            DropConnection(server, fd);
            continue;
        }
        if (StartTunnelClient(server, fd, &peer, __func__) != 0) {
            DropConnection(server, fd);
        }
    }
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: Exiting RTMPT connection accept thread\n",
                 __func__);
    RtmpThreadExit(RtmpGetSelfThreadHandle());
}

void *ServeRtmptClient(void *client)
{
    if (client == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid thread input arguments\n", __func__);
        (void)RtmpThreadDetach(RtmpGetSelfThreadHandle()); // the thread has no caller to report to
        RtmpThreadExit(RtmpGetSelfThreadHandle());
    }
    // KEPT: nothing is read or answered, and neither the thread nor its connection ends. Required.
    for (;;) {
        sleep(10);
    }
}
