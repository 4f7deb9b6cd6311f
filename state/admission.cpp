#include "state/admission.h"

#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "state/client.h"
#include "state/server_hold.h"
#include "state/viewers.h"
#include "steady/farewell.h"
#include "steady/line.h"
#include "steady/line_end.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kNapMs = 50;
constexpr int kIdleSeconds = 60;  // before the kernel asks whether a silent peer is still there,
constexpr int kProbeSeconds = 10; // and between two questions

// What stays unsent in the kernel for a player. Without a bound it is megabytes, seconds of the stream: a
// player that falls behind would be seen late, and could not go on at a newer key frame before it has taken
// them all.
constexpr int kUnsentBytes = 256 << 10;

constexpr const char *kAccept = "AcceptSteadily";

constexpr const char *kReasons[] = {
    "its connection has ended",
    "its handshake took too long",
    "it did not play in time",
    "it took nothing for too long",
    "too many answers wait for it",
    "nothing could be written to it",
    "its time on the second port is up",
    "the server ends",
    "it was refused",
    "its session ends",
    "it began more message bytes than it may",
    "it used more chunk streams than it may",
};
static_assert(sizeof kReasons / sizeof kReasons[0] == STEADY_ENDS);

void SetOption(int fd, int level, int name, int value)
{
    (void)setsockopt(fd, level, name, &value,
                     sizeof value); // without it the connection is only less well kept
}

// A peer that is gone without a word is noticed; the stall limit holds also for bytes that the kernel has.
void SetPeerOptions(int fd, uint32_t stallMilliseconds)
{
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, kProbeSeconds);
    SetOption(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, kUnsentBytes);
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT,
              stallMilliseconds < INT32_MAX ? static_cast<int>(stallMilliseconds) : INT32_MAX);
}

// A connection that breaks while it waits, or a signal, is no reason to wait. The end of the listener ends
// the nap.
bool IsWaitedOut(int socket, int error)
{
    switch (error) {
    case EINTR:
    case ECONNABORTED:
        return true;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM: {
        struct pollfd entry = {socket, 0, 0};
        (void)poll(&entry, 1, kNapMs);
        return true;
    }
    default:
        return false;
    }
}

void LogNoLine(const SteadyListener *listener, const RtmpClient *client, int reason)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const RtmpServiceLimits *limits = &listener->Service->Limits;
    if (reason == LINE_TOO_MANY) {
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: %s is turned away: %u clients are connected\n",
                     kAccept, client->ClientIP, limits->MostClients);
    } else if (reason == LINE_TOO_MANY_OF_ADDRESS) {
        RtmpLogPrint(logger, RTMP_LOG_INFO,
                     "INFO: %s: %s is turned away: %u clients are connected from this address\n", kAccept,
                     client->ClientIP, limits->MostClientsPerAddress);
    } else {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to the line of %s\n", kAccept,
                     client->ClientIP);
    }
}

// Null (logged): the connection is not to be served.
RtmpClient *ClientOf(const SteadyListener *listener, int fd)
{
    RtmpServer *server = listener->Service->Server;
    struct sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &length) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: A client is gone already\n", kAccept);
        return nullptr;
    }
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    RtmpClient *client = CreateNewRtmpClient(server, listener->ConnType, fd, address, peer.sin_port, nullptr);
    if (client == nullptr) {
        return nullptr; // logged
    }
    client->PlayerFlags = LoadShared(&server->PlayerFlags);
    client->ThreadOwner = THREAD_OWNER_ITSELF;
    const int result = NewLine(listener->Service, client, 1);
    if (result != 0) {
        LogNoLine(listener, client, result);
        FreeClientRecord(client);
        return nullptr;
    }
    return client;
}

// The client's thread may end it at any time once it runs.
void HandToThread(const SteadyListener *listener, RtmpClient *client)
{
    RtmpServer *server = client->Server;
    client->Line->SpeaksTls = listener->SpeaksTls;
    SetDeadline(client->Line, listener->WaitsFor, listener->Milliseconds);
    HoldServer(server);
    if (RtmpDetachedThreadCreate(listener->Serve, client) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot create a thread for %s\n", kAccept,
                     client->ClientIP);
        FreeClientRecord(client);
        (void)ReleaseServer(server); // never the last: the server's creator waits for this thread
    }
}

void Welcome(const SteadyListener *listener, int fd)
{
    SetPeerOptions(fd, listener->Service->Limits.StallMilliseconds);
    RtmpClient *client = ClientOf(listener, fd);
    if (client == nullptr) {
        close(fd);
        return;
    }
    HandToThread(listener, client);
}

} // namespace

void AcceptSteadily(const SteadyListener *listener, int fd)
{
    do {
        if (fd >= 0) {
            Welcome(listener, fd);
        }
        fd = accept4(listener->Socket, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd >= 0 || IsWaitedOut(listener->Socket, errno));
}

void LeaveSteadily(RtmpClient *client)
{
    RtmpServer *server = client->Server;
    const uint8_t end = LoadShared(&client->Line->End);
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_INFO, "INFO: %s: %s, port %u, leaves: %s\n", __func__,
                 client->ClientIP, ntohs(client->Port), kReasons[end]);
    if (end == STEADY_END_REFUSED) {
        SeeAnswersOut(client->Line);
    }
    ViewerLeft(client);
    FreeClientRecord(client);
    (void)ReleaseServer(server); // a failure is logged
}
